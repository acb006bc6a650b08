#include "security/hosting/undo_log.h"

#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "security/administrators_file.h"
#include "security/disk/path_variables.h"

#include <algorithm>
#include <cstring>

namespace HostingSecurity {

using RunTime::RecordContent;
using RunTime::RecordParts;

namespace {

constexpr DWORD kindHead = 0x4F44'4E55; // "UNDO"
constexpr DWORD kindItem = 0x4D45'5449; // "ITEM"
constexpr DWORD kindEnd = 0x2144'4E45;  // "END!"
constexpr DWORD version = 1;

constexpr std::size_t before = RunTime::recordHeadSize; // of a record, its content
constexpr std::size_t after = RunTime::recordTailSize;  // and behind it
constexpr std::size_t maxDescriptor = 4 * 65'536;
constexpr std::size_t maxRecord = before + after + 64 + RunTime::maxPathBytes + maxDescriptor;

[[noreturn]] void refuse(const wchar_t* why, int line) {
    throw UndoFileException(why, {L"", "HostingSecurity::UndoReader", line});
}

constexpr wchar_t damaged[] = L"The undo file is damaged, or no undo file";

UndoHead headOf(std::span<const unsigned char> bytes) {
    RecordParts content(bytes);
    if (content.number<DWORD>() != version) {
        refuse(L"The undo file was written by another version", __LINE__);
    }
    UndoHead head;
    head.identity.volume = content.number<DWORD>();
    head.identity.file = content.number<std::uint64_t>();
    head.root = content.text();
    if (!content.isWhole() || !head.root.starts_with(RunTime::longPrefix) ||
        RunTime::isRoot(head.root)) {
        refuse(damaged, __LINE__);
    }
    return head;
}

UndoItem itemOf(std::span<const unsigned char> bytes, const std::wstring& root) {
    RecordParts content(bytes);
    UndoItem item;
    item.identity.volume = content.number<DWORD>();
    item.identity.file = content.number<std::uint64_t>();
    item.path = content.text();
    const auto descriptor = content.block(maxDescriptor);
    item.descriptor.assign(descriptor.begin(), descriptor.end());
    if (!content.isWhole()) {
        refuse(damaged, __LINE__);
    }
    // No stream, and no way out of the root.
    if (!item.path.empty() &&
        (item.path.find_first_of(L":/") != item.path.npos ||
         !RunTime::isStrictlyInside(RunTime::combine(root, item.path), root))) {
        refuse(damaged, __LINE__);
    }
    if (!RunTime::isWholeDescriptor(item.descriptor.data(), item.descriptor.size())) {
        refuse(damaged, __LINE__);
    }
    return item; // what is in a list is for the system to judge: it kept it, whatever it is
}

std::wstring undoDirectory() {
    std::wstring directory =
        RunTime::longPath(DiskSecurity::PathVariables().value(config::name::productData));
    directory = RunTime::combine(directory, L"logs");
    RunTime::createDirectory(directory);
    directory = RunTime::combine(directory, L"hosting-security");
    RunTime::createAdministratorsDirectory(directory);
    return directory;
}

// "d1.example-20261121-185144-": the time is UTC.
std::wstring stemOf(const std::wstring& domain) {
    SYSTEMTIME now;
    ::GetSystemTime(&now);
    constexpr std::size_t room = 100; // for a name, the rest of which has to fit too
    return domain.substr(0, room) + formatString(L"-%04d%02d%02d-%02d%02d%02d-", now.wYear,
                                                 now.wMonth, now.wDay, now.wHour, now.wMinute,
                                                 now.wSecond);
}

} // namespace

HostingLock::HostingLock(const std::wstring& root, const ItemIdentity& identity) {
    constexpr const char* function = "HostingSecurity::HostingLock::HostingLock";
    const std::wstring path = RunTime::combine(
        undoDirectory(), formatString(L"%08lx-%016llx.lock", identity.volume,
                                      static_cast<unsigned long long>(identity.file)));
    file_ = RunTime::createAdministratorsFile(path, GENERIC_WRITE | DELETE, 0, OPEN_ALWAYS,
                                              FILE_FLAG_DELETE_ON_CLOSE);
    if (!file_) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_SHARING_VIOLATION) {
            throw vexception(formatString(L"Another repair or undo of (%s) is under way",
                                          RunTime::nicePath(root).c_str()),
                             {L"", function, __LINE__});
        }
        RunTime::throwForPath(L"Unable to create file (%s)", path, code, function, __LINE__);
    }
}

UndoLog::UndoLog(const UndoHead& head, const std::wstring& domain, std::uint64_t limit)
    : room_(limit) {
    const std::wstring directory = undoDirectory();
    for (int left = RunTime::defaultTryCount; !file_; --left) {
        path_ = RunTime::temporaryName(directory, stemOf(domain)) + L".undo";
        file_ = RunTime::createAdministratorsFile(path_, GENERIC_WRITE, FILE_SHARE_READ);
        const DWORD code = ::GetLastError();
        if (!file_ && (code != ERROR_FILE_EXISTS || left <= 1)) {
            RunTime::throwForPath(L"Unable to create file (%s)", path_, code,
                                  "HostingSecurity::UndoLog::UndoLog", __LINE__);
        }
    }
    append(kindHead, RecordContent()
                         .number(version)
                         .number(head.identity.volume)
                         .number(head.identity.file)
                         .text(head.root));
}

UndoLog::~UndoLog() {
    try {
        if (!broken_) {
            append(kindEnd, RecordContent().number(count_));
            sync();
        }
    } catch (const vexception&) { // the file is one without its end, and undo() says so
        broken_ = true;
    } catch (const std::bad_alloc&) {
        broken_ = true;
    }
}

void UndoLog::add(const UndoItem& item) {
    RecordContent content;
    content.number(item.identity.volume)
        .number(item.identity.file)
        .text(item.path)
        .block(item.descriptor);
    if (content.bytes().size() > room_) {
        RunTime::throwForPath(L"The undo file (%s) is full: what has been changed is in it, and "
                              L"another repair goes on from there",
                              path_, ERROR_FILE_TOO_LARGE, "HostingSecurity::UndoLog::add",
                              __LINE__);
    }
    room_ -= content.bytes().size();
    append(kindItem, content);
    ++count_;
}

void UndoLog::append(DWORD kind, const RecordContent& content) {
    checksum_ = RunTime::appendRecord(waiting_, kind, content.bytes(), checksum_);
}

void UndoLog::sync() {
    constexpr const char* function = "HostingSecurity::UndoLog::sync";
    DWORD written = 0;
    broken_ = true;
    if (!::WriteFile(file_.get(), waiting_.data(), static_cast<DWORD>(waiting_.size()), &written,
                     nullptr)) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to write file (%s)", path_, code, function, __LINE__);
    }
    if (written != waiting_.size()) {
        RunTime::throwForPath(L"Unable to write file (%s)", path_, ERROR_DISK_FULL, function,
                              __LINE__);
    }
    waiting_.clear();
    if (!::FlushFileBuffers(file_.get())) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to write file (%s)", path_, code, function, __LINE__);
    }
    broken_ = false;
}

UndoReader::UndoReader(IUndoBytes& bytes, bool unfinished) : bytes_(bytes) {
    const std::uint64_t size = bytes_.size();
    std::uint64_t checksum = 0;
    std::uint64_t items = 0;
    bool ended = false;
    for (std::uint64_t offset = 0; offset < size && !ended;) {
        Record record;
        if (!readRecord(offset, record)) {
            // A record that was cut off was not acted on.
            if (firstItem_ == 0 || !unfinished) {
                refuse(firstItem_ == 0 ? damaged : L"The undo file is truncated", __LINE__);
            }
            break;
        }
        checksum = RunTime::recordChecksum(
            checksum, std::span(buffer_).first(before + record.content.size()));
        if (checksum != record.checksum || (record.kind == kindHead) != (offset == 0)) {
            refuse(damaged, __LINE__);
        }
        offset += record.size;
        switch (record.kind) {
        case kindHead:
            head_ = headOf(record.content);
            firstItem_ = offset;
            at_ = offset;
            break;
        case kindItem:
            itemOf(record.content, head_.root);
            ++items;
            at_ = offset;
            break;
        case kindEnd: {
            RecordParts content(record.content);
            ended = content.number<std::uint64_t>() == items && offset == size;
            if (!ended || !content.isWhole()) {
                refuse(damaged, __LINE__);
            }
            break;
        }
        default:
            refuse(damaged, __LINE__);
        }
    }
    if (firstItem_ == 0) {
        refuse(damaged, __LINE__);
    }
    if (!ended && !unfinished) {
        refuse(L"The undo file has no end: the repair that wrote it was cut off", __LINE__);
    }
}

// False when the file ends before the record does.
bool UndoReader::readRecord(std::uint64_t offset, Record& record) {
    const std::uint64_t left = bytes_.size() - offset;
    if (left < before) {
        return false;
    }
    buffer_.resize(before);
    bytes_.read(offset, buffer_);
    std::memcpy(&record.size, buffer_.data(), sizeof(record.size));
    std::memcpy(&record.kind, buffer_.data() + sizeof(record.size), sizeof(record.kind));
    if (record.size < before + after || record.size > maxRecord) {
        refuse(damaged, __LINE__);
    }
    if (left < record.size) {
        return false;
    }
    buffer_.resize(record.size);
    bytes_.read(offset + before, std::span(buffer_).subspan(before));
    const std::size_t contentSize = record.size - before - after;
    record.content = std::span(buffer_).subspan(before, contentSize);
    std::memcpy(&record.checksum, buffer_.data() + before + contentSize, sizeof(record.checksum));
    DWORD again = 0;
    std::memcpy(&again, buffer_.data() + record.size - sizeof(again), sizeof(again));
    if (again != record.size) {
        refuse(damaged, __LINE__);
    }
    return true;
}

bool UndoReader::previous(UndoItem& item) {
    if (at_ <= firstItem_) {
        return false;
    }
    unsigned char bytes[sizeof(DWORD)];
    bytes_.read(at_ - sizeof(bytes), bytes);
    DWORD size = 0;
    std::memcpy(&size, bytes, sizeof(size));
    Record record;
    if (size > at_ - firstItem_ || !readRecord(at_ - size, record) || record.size != size) {
        refuse(damaged, __LINE__);
    }
    item = itemOf(record.content, head_.root);
    at_ -= size;
    return true;
}

} // namespace HostingSecurity
