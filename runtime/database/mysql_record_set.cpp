#include "runtime/database/mysql_record_set.h"

#include "runtime/database/mysql_connection.h"
#include "runtime/text.h"
#include "runtime/wipe.h"

namespace {

// Rows may hold passwords.
void wipeRow(std::vector<std::optional<std::string>>& row) noexcept {
    for (std::optional<std::string>& cell : row) {
        if (cell) {
            RunTime::wipe(*cell);
        }
    }
    row.clear();
}

} // namespace

VMySQLRecordSet::VMySQLRecordSet(std::shared_ptr<database::MySQLConnection> connection,
                                 std::wstring statement)
    : connection_(std::move(connection)), statement_(std::move(statement)) {
    MYSQL* handle = connection_->get();
    if (::mysql_field_count(handle) == 0) {
        throw VDatabase::StatementException(L"Unable to query (" + statement_ +
                                                L"): the statement gives no rows",
                                            0, {L"", "VMySQLRecordSet::VMySQLRecordSet", __LINE__});
    }
    result_ = ::mysql_use_result(handle);
    if (result_ == nullptr) {
        throw connection_->failure(statement_, {L"", "VMySQLRecordSet::VMySQLRecordSet", __LINE__});
    }
    const MYSQL_FIELD* fields = ::mysql_fetch_fields(result_);
    for (unsigned int i = 0; i < ::mysql_num_fields(result_); ++i) {
        columns_.push_back(toWide({fields[i].name, fields[i].name_length}));
    }
    connection_->reader = this; // the last step: from here on the destructor takes it back
}

VMySQLRecordSet::~VMySQLRecordSet() {
    if (result_ != nullptr) {
        release();
        connection_->dropFurtherResults();
    }
    wipeRow(shown_);
    for (KeptRow& row : kept_) {
        wipeRow(row);
    }
}

bool VMySQLRecordSet::next() {
    row_.clear();
    wipeRow(shown_);
    if (!kept_.empty()) {
        show(std::move(kept_.front()));
        kept_.pop_front();
        return true;
    }
    if (result_ != nullptr) {
        fetch();
    }
    if (row_.empty() && failure_) {
        throw *failure_;
    }
    return !row_.empty();
}

std::optional<std::wstring> VMySQLRecordSet::text(std::wstring_view column) const {
    std::size_t index = 0;
    while (index < columns_.size() &&
           ::CompareStringOrdinal(columns_[index].data(), static_cast<int>(columns_[index].size()),
                                  column.data(), static_cast<int>(column.size()),
                                  TRUE) != CSTR_EQUAL) {
        ++index;
    }
    if (index == columns_.size()) {
        fail(std::wstring(column), L"there is no such column");
    }
    return text(index);
}

std::optional<std::wstring> VMySQLRecordSet::text(std::size_t column) const {
    const std::optional<std::string_view> found = bytes(column);
    if (!found) {
        return std::nullopt;
    }
    std::wstring result = toWide(*found);
    if (result.find(L'\xFFFD') != std::wstring::npos && toUtf8(result) != *found) {
        fail(columns_[column], L"it holds bytes that are no text");
    }
    return result;
}

std::optional<std::string_view> VMySQLRecordSet::bytes(std::size_t column) const {
    if (column >= columns_.size()) {
        fail(std::to_wstring(column), L"there is no such column");
    }
    if (row_.empty()) {
        fail(columns_[column], L"there is no row");
    }
    return row_[column];
}

void VMySQLRecordSet::fail(const std::wstring& column, const wchar_t* reason) const {
    throw vexception(L"Unable to read the column (" + column + L") of (" + statement_ + L"): " +
                         reason,
                     {L"", "VMySQLRecordSet::text", __LINE__});
}

void VMySQLRecordSet::readAhead() {
    if (result_ == nullptr) {
        return;
    }
    KeptRow current = keep();
    while (fetch()) {
        kept_.push_back(keep());
    }
    wipeRow(shown_);
    show(std::move(current));
}

VMySQLRecordSet::KeptRow VMySQLRecordSet::keep() const {
    KeptRow row;
    for (const std::optional<std::string_view>& cell : row_) {
        row.push_back(cell ? std::optional<std::string>(*cell) : std::nullopt);
    }
    return row;
}

void VMySQLRecordSet::show(KeptRow&& row) {
    shown_ = std::move(row);
    row_.assign(shown_.begin(), shown_.end());
}

// The next row of the server. At the end, and when the rows break off, the connection is free.
bool VMySQLRecordSet::fetch() {
    row_.clear();
    const MYSQL_ROW cells = ::mysql_fetch_row(result_);
    if (cells == nullptr) {
        const bool whole = ::mysql_errno(connection_->get()) == 0;
        release();
        if (!whole || !connection_->dropFurtherResults()) {
            failure_ = connection_->failure(statement_, {L"", "VMySQLRecordSet::next", __LINE__});
        }
        return false;
    }
    const unsigned long* lengths = ::mysql_fetch_lengths(result_);
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        if (cells[i] == nullptr) {
            row_.emplace_back(std::nullopt);
        } else {
            row_.emplace_back(std::in_place, cells[i], lengths[i]);
        }
    }
    return true;
}

// Reads what is left of the result, and passes over it.
void VMySQLRecordSet::release() noexcept {
    ::mysql_free_result(result_);
    result_ = nullptr;
    connection_->reader = nullptr;
}
