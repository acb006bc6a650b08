#include "relocation/backup_stream.h"

#include "runtime/exception.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

constexpr std::size_t headerBytes = offsetof(WIN32_STREAM_ID, cStreamName); // sizeof pads it to 24
constexpr DWORD longestStreamName = 0x10000;                                // bytes
constexpr DWORD transactionStream = 10; // BACKUP_TXFS_DATA, which not every header names
constexpr DWORD sparseAttribute = 8;    // STREAM_SPARSE_ATTRIBUTE

[[noreturn]] void throwMalformed(const char* function, int line) {
    _throwError(L"Unable to read streams", ERROR_INVALID_DATA, {L"", function, line});
}

} // namespace

bool isBackupRefused(DWORD code) noexcept {
    return code == ERROR_NOT_SUPPORTED || code == ERROR_CALL_NOT_IMPLEMENTED ||
           code == ERROR_INVALID_FUNCTION;
}

DWORD BackupReader::read(void* buffer, DWORD bytes, DWORD& got) noexcept {
    got = 0;
    if (!::BackupRead(file_, static_cast<BYTE*>(buffer), bytes, &got, FALSE, security_,
                      &context_)) {
        return ::GetLastError();
    }
    return ERROR_SUCCESS;
}

BackupReader::~BackupReader() {
    if (context_ != nullptr) {
        DWORD got = 0;
        ::BackupRead(file_, nullptr, 0, &got, TRUE, security_, &context_);
    }
}

DWORD BackupWriter::write(const void* buffer, DWORD bytes) noexcept {
    DWORD written = 0;
    // The parameter lacks its const: the buffer is only read.
    if (!::BackupWrite(file_, static_cast<BYTE*>(const_cast<void*>(buffer)), bytes, &written, FALSE,
                       FALSE, &context_)) {
        return ::GetLastError();
    }
    return written == bytes ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

BackupWriter::~BackupWriter() {
    if (context_ != nullptr) {
        DWORD written = 0;
        ::BackupWrite(file_, nullptr, 0, &written, TRUE, FALSE, &context_);
    }
}

unsigned char* BackupStreamCopy::buffer() {
    buffer_.resize(bufferBytes);
    return buffer_.data();
}

bool BackupStreamCopy::run(HANDLE source, HANDLE target, StreamType keep, Found& found) {
    unsigned char* const bytes = buffer();
    BackupReader reader(source, has(keep, StreamType::SecurityData));
    BackupWriter writer(target);
    bool anyRead = false;
    bool anyWritten = false;
    std::size_t have = 0;      // bytes in the buffer
    std::uint64_t payload = 0; // bytes of the current stream that are still to come
    Action action = Action::Drop;
    std::int64_t passed = 0;
    dataAction_ = Action::Drop;

    for (;;) {
        DWORD got = 0;
        const DWORD readCode =
            reader.read(bytes + have, bufferBytes - static_cast<DWORD>(have), got);
        if (readCode != ERROR_SUCCESS) {
            if (!anyRead && isBackupRefused(readCode)) {
                return false;
            }
            _throwError(L"Unable to read streams", readCode,
                        {L"", "BackupStreamCopy::run", __LINE__});
        }
        anyRead = true;
        if (got == 0) {
            if (have != 0 || payload != 0) {
                throwMalformed("BackupStreamCopy::run", __LINE__); // ends within a stream
            }
            return true;
        }
        have += got;

        std::size_t kept = 0; // [kept, at) goes to the target in one call
        std::size_t at = 0;
        const auto flush = [&]() -> bool {
            if (kept == at) {
                return true;
            }
            const DWORD code = writer.write(bytes + kept, static_cast<DWORD>(at - kept));
            if (code != ERROR_SUCCESS) {
                if (!anyWritten && isBackupRefused(code)) {
                    return false;
                }
                _throwError(L"Unable to write streams", code,
                            {L"", "BackupStreamCopy::run", __LINE__});
            }
            anyWritten = true;
            return true;
        };
        for (;;) {
            if (payload > 0) {
                const std::size_t step =
                    static_cast<std::size_t>(std::min<std::uint64_t>(payload, have - at));
                if (action == Action::Drop) {
                    if (!flush()) {
                        return false;
                    }
                    kept = at + step;
                }
                at += step;
                payload -= step;
                passed += static_cast<std::int64_t>(step);
                if (payload > 0) {
                    break;
                }
                continue;
            }
            // A header may fall anywhere in what was read: the rest comes with the next call.
            WIN32_STREAM_ID header = {};
            if (have - at < headerBytes) {
                break;
            }
            std::memcpy(&header, bytes + at, headerBytes);
            if (header.dwStreamNameSize > longestStreamName || header.Size.QuadPart < 0) {
                throwMalformed("BackupStreamCopy::run", __LINE__);
            }
            const std::size_t whole = headerBytes + header.dwStreamNameSize;
            const auto size = static_cast<std::uint64_t>(header.Size.QuadPart);
            const bool isData = header.dwStreamId == BACKUP_DATA ||
                                header.dwStreamId == BACKUP_ALTERNATE_DATA ||
                                header.dwStreamId == BACKUP_SPARSE_BLOCK;
            // Small streams are handed over whole, header and payload together.
            if (!isData && size > bufferBytes - whole) {
                throwMalformed("BackupStreamCopy::run", __LINE__);
            }
            if (have - at < whole + (isData ? 0 : size)) {
                break;
            }
            action = actionFor(header, keep, found);
            if (action == Action::Keep) {
                at += whole;
                payload = size;
                continue;
            }
            if (!flush()) {
                return false;
            }
            at += whole;
            if (action == Action::TakeSecurity) {
                if (!RunTime::isWholeDescriptor(bytes + at, static_cast<std::size_t>(size))) {
                    _throwError(L"Unable to read security", ERROR_INVALID_SECURITY_DESCR,
                                {L"", "BackupStreamCopy::run", __LINE__});
                }
                found.security.assign(bytes + at, bytes + at + size);
                at += static_cast<std::size_t>(size);
            } else if (action == Action::TakeObjectId) {
                found.objectId.assign(bytes + at, bytes + at + size);
                at += static_cast<std::size_t>(size);
            } else {
                payload = size;
            }
            kept = at;
        }
        if (!flush()) {
            return false;
        }
        have -= at;
        std::memmove(bytes, bytes + at, have);
        if (payload > 0) { // more than a buffer: a cancel must not wait for the whole file
            ThreadCancelation::check();
            if (onBytes) {
                onBytes(passed);
            }
        }
    }
}

BackupStreamCopy::Action BackupStreamCopy::actionFor(const WIN32_STREAM_ID& header, StreamType keep,
                                                     Found& found) {
    const auto keepOrDrop = [&](StreamType kind) {
        if (has(keep, kind)) {
            return Action::Keep;
        }
        found.dropped = found.dropped | kind;
        return Action::Drop;
    };
    switch (header.dwStreamId) {
    case BACKUP_DATA:
    case BACKUP_ALTERNATE_DATA:
        dataAction_ = keepOrDrop(header.dwStreamId == BACKUP_DATA ? StreamType::Data
                                                                  : StreamType::AlternateData);
        if (dataAction_ == Action::Keep && (header.dwStreamAttributes & sparseAttribute)) {
            found.sparse = true;
            found.sparseStream |= header.dwStreamId == BACKUP_ALTERNATE_DATA;
        }
        return dataAction_;
    case BACKUP_SPARSE_BLOCK:
        if (dataAction_ == Action::Keep) {
            found.sparse = true;
        }
        return dataAction_;
    case BACKUP_EA_DATA:
        return keepOrDrop(StreamType::EAData);
    case BACKUP_SECURITY_DATA:
        return has(keep, StreamType::SecurityData) ? Action::TakeSecurity
                                                   : keepOrDrop(StreamType::SecurityData);
    case BACKUP_PROPERTY_DATA:
        return keepOrDrop(StreamType::PropertyData);
    case BACKUP_OBJECT_ID:
        return has(keep, StreamType::ObjectId) ? Action::TakeObjectId
                                               : keepOrDrop(StreamType::ObjectId);
    case BACKUP_REPARSE_DATA:
        return keepOrDrop(StreamType::ReparseData);
    case BACKUP_LINK: // names of the same file: the copier makes them itself
        return Action::Drop;
    case transactionStream:
        found.transactionData = true;
        return Action::Drop;
    default:
        throwMalformed("BackupStreamCopy::actionFor", __LINE__);
    }
}
