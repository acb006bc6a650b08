#include "relocation/transaction_log.h"

#include "relocation/failure.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/format_string.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr wchar_t logStem[] = L"{71D2213F-C992-4279-B3B7-EEB2A16870A3}";
constexpr std::int64_t costBytes = 8;
constexpr std::int64_t lengthBytes = 4;
constexpr std::int64_t flagBytes = 1;
constexpr std::uint32_t longestName = 32767; // code units of the longest path there is
constexpr std::uint64_t emptySum = 0xcbf29ce484222325;

// FNV-1a: against damage, not against forgery (nobody else can write to the open log).
std::uint64_t addToSum(std::uint64_t sum, const unsigned char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        sum = (sum ^ bytes[i]) * 0x100000001b3;
    }
    return sum;
}

} // namespace

void TransactionLog::create(const std::wstring& directory) {
    for (RunTime::Retry retry(RunTime::defaultTryCount);;) {
        name_ = RunTime::temporaryName(directory, logStem);
        file_.reset(::CreateFileW(name_.c_str(), GENERIC_ALL, FILE_SHARE_READ, nullptr, CREATE_NEW,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
        if (file_) {
            break;
        }
        const DWORD code = ::GetLastError();
        const std::wstring failed = std::exchange(name_, {});
        if (code != ERROR_FILE_EXISTS && !retry.again(code)) {
            _throwError(
                formatString(L"Unable to create log file (%s)", RunTime::nicePath(failed).c_str())
                    .c_str(),
                code, {L"", "TransactionLog::create", __LINE__});
        }
    }
    size_ = 0;
    sizeBefore_ = -1;
    totalCount_ = 0;
    totalCost_ = 0;
    sum_ = emptySum;
}

void TransactionLog::append(bool isFile, const std::wstring& name, std::int64_t cost) {
    sizeBefore_ = -1; // an append that fails leaves nothing to drop
    if (hasStaleEnd_) {
        cutToSize();
    }
    const std::uint32_t length = static_cast<std::uint32_t>(name.size());
    const std::size_t nameBytes = name.size() * sizeof(wchar_t);
    buffer_.resize(flagBytes + nameBytes + lengthBytes + costBytes);
    unsigned char* out = buffer_.data();
    *out++ = isFile ? 1 : 0;
    std::memcpy(out, name.data(), nameBytes);
    out += nameBytes;
    std::memcpy(out, &length, lengthBytes);
    std::memcpy(out + lengthBytes, &cost, costBytes);

    DWORD written = 0;
    DWORD code = ERROR_SUCCESS;
    if (!::WriteFile(file_.get(), buffer_.data(), static_cast<DWORD>(buffer_.size()), &written,
                     nullptr)) {
        code = ::GetLastError();
    } else if (written != buffer_.size()) {
        code = ERROR_DISK_FULL;
    }
    if (code != ERROR_SUCCESS) {
        hasStaleEnd_ = true; // half a record, perhaps
        _throwError(L"Unable to write log", code, {L"", "TransactionLog::append", __LINE__});
    }
    sizeBefore_ = size_;
    costBefore_ = totalCost_;
    size_ += static_cast<std::int64_t>(buffer_.size());
    ++totalCount_;
    totalCost_ = cost;
    sumBefore_ = sum_;
    sum_ = addToSum(sum_, buffer_.data(), buffer_.size());
}

void TransactionLog::dropLast() {
    if (sizeBefore_ < 0) {
        return;
    }
    size_ = std::exchange(sizeBefore_, -1);
    --totalCount_;
    totalCost_ = costBefore_;
    sum_ = sumBefore_;
    hasStaleEnd_ = true;
    try {
        cutToSize();
    } catch (const vosexception&) {
        // What stands behind the size is never acted on, and is cut before the next record.
        logFailure(formatString(L"Cut (%s) log file", RunTime::nicePath(name_).c_str()));
    }
}

void TransactionLog::cutToSize() {
    LARGE_INTEGER position;
    position.QuadPart = size_;
    if (!::SetFilePointerEx(file_.get(), position, nullptr, FILE_BEGIN) ||
        !::SetEndOfFile(file_.get())) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to cut log", code, {L"", "TransactionLog::cutToSize", __LINE__});
    }
    hasStaleEnd_ = false;
}

void TransactionLog::seekToEnd(const std::wstring& target) {
    LARGE_INTEGER size;
    if (!::GetFileSizeEx(file_.get(), &size)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to get size of log", code,
                    {L"", "TransactionLog::seekToEnd", __LINE__});
    }
    position_ = hasStaleEnd_ ? std::min(size_, size.QuadPart) : size.QuadPart;
    if (position_ != size_ || sumOfFile(size_) != sum_) {
        Record record;
        while (previous(record, target)) { // says what is wrong, if it shows
        }
        throw vexception(L"Unable to read name from log",
                         {L"", "TransactionLog::seekToEnd", __LINE__});
    }
    position_ = size_;
}

bool TransactionLog::previous(Record& record, const std::wstring& target) {
    if (position_ == 0) {
        return false;
    }
    std::int64_t position = position_;
    position -= costBytes;
    readAt(position, &record.cost, costBytes, L"Unable to read complete size from log");

    std::uint32_t length = 0;
    position -= lengthBytes;
    readAt(position, &length, lengthBytes, L"Unable to read name length from log");
    if (length == 0 || length > longestName) {
        throw vexception(L"Unable to read name length from log",
                         {L"", "TransactionLog::previous", __LINE__});
    }

    record.name.resize(length);
    position -= static_cast<std::int64_t>(length) * static_cast<std::int64_t>(sizeof(wchar_t));
    readAt(position, record.name.data(), length * static_cast<std::uint32_t>(sizeof(wchar_t)),
           L"Unable to read name from log");
    if (record.name.find(L'\0') != std::wstring::npos ||
        !RunTime::isStrictlyInside(record.name, target)) {
        throw vexception(L"Unable to read name from log",
                         {L"", "TransactionLog::previous", __LINE__});
    }

    unsigned char flag = 0;
    position -= flagBytes;
    readAt(position, &flag, flagBytes, L"Unable to read file type from log");
    if (flag > 1) {
        throw vexception(L"Unable to read file type from log",
                         {L"", "TransactionLog::previous", __LINE__});
    }
    record.isFile = flag == 1;
    position_ = position;
    return true;
}

void TransactionLog::readAt(std::int64_t position, void* buffer, std::uint32_t bytes,
                            const wchar_t* failure) {
    LARGE_INTEGER where;
    where.QuadPart = position;
    DWORD read = 0;
    if (position < 0 || !::SetFilePointerEx(file_.get(), where, nullptr, FILE_BEGIN) ||
        !::ReadFile(file_.get(), buffer, bytes, &read, nullptr) || read != bytes) {
        throw vexception(failure, {L"", "TransactionLog::readAt", __LINE__});
    }
}

std::uint64_t TransactionLog::sumOfFile(std::int64_t size) {
    buffer_.resize(64 * 1024);
    std::uint64_t sum = emptySum;
    for (std::int64_t done = 0; done < size;) {
        const auto step = static_cast<std::uint32_t>(
            std::min<std::int64_t>(size - done, static_cast<std::int64_t>(buffer_.size())));
        readAt(done, buffer_.data(), step, L"Unable to read complete size from log");
        sum = addToSum(sum, buffer_.data(), step);
        done += step;
    }
    return sum;
}

void TransactionLog::remove() {
    file_.reset();
    if (!name_.empty()) {
        RunTime::deleteFile(name_);
        name_.clear();
    }
    size_ = 0;
    sizeBefore_ = -1;
    totalCount_ = 0;
    totalCost_ = 0;
}
