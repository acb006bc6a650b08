#include "relocation/ordinary_stream_copy.h"

#include "relocation/stream_list.h"
#include "runtime/exception.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <vector>
#include <winioctl.h>

using RunTime::AutoHandle;
using RunTime::throwForPath;

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

} // namespace

void OrdinaryStreamCopy::run(const Item& item) {
    const RunTime::FileInformation& entry = item.entry;
    if (entry.isLink()) {
        copyReparsePoint(item.source, item.target, item.sourcePath);
    } else if (!entry.isDirectory() && has(item.keep, StreamType::Data)) {
        if ((entry.attributes & FILE_ATTRIBUTE_SPARSE_FILE) == 0 ||
            !copyRanges(item.source, item.target, item.size)) {
            copyData(item.source, item.target, 0, item.size);
        }
    }
    if (item.namedStreams) {
        copyNamedStreams(item.sourcePath, item.targetPath,
                         has(item.keep, StreamType::AlternateData));
    }
}

void OrdinaryStreamCopy::copyData(HANDLE source, HANDLE target, std::int64_t from,
                                  std::int64_t to) {
    unsigned char* const buffer = shared_.buffer();
    while (from < to) {
        const auto wanted =
            static_cast<DWORD>(std::min<std::int64_t>(to - from, BackupStreamCopy::bufferBytes));
        DWORD got = 0;
        if (!::ReadFile(source, buffer, wanted, &got, nullptr)) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to read data", code,
                        {L"", "OrdinaryStreamCopy::copyData", __LINE__});
        }
        if (got == 0) {
            return; // it has become shorter, which the look at its size afterwards tells
        }
        DWORD written = 0;
        if (!::WriteFile(target, buffer, got, &written, nullptr)) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to write data", code,
                        {L"", "OrdinaryStreamCopy::copyData", __LINE__});
        }
        if (written != got) {
            _throwError(L"Unable to write data", ERROR_DISK_FULL,
                        {L"", "OrdinaryStreamCopy::copyData", __LINE__});
        }
        from += got;
        if (from < to) { // a cancel must not wait for the whole of a large file
            ThreadCancelation::check();
            if (shared_.onBytes) {
                shared_.onBytes(from);
            }
        }
    }
}

bool OrdinaryStreamCopy::copyRanges(HANDLE source, HANDLE target, std::int64_t size) {
    FILE_ALLOCATED_RANGE_BUFFER asked = {};
    asked.Length.QuadPart = size;
    FILE_ALLOCATED_RANGE_BUFFER ranges[256];
    for (bool more = true; more;) {
        DWORD got = 0;
        more = false;
        if (!::DeviceIoControl(source, FSCTL_QUERY_ALLOCATED_RANGES, &asked, sizeof(asked), ranges,
                               sizeof(ranges), &got, nullptr)) {
            const DWORD code = ::GetLastError();
            if (code != ERROR_MORE_DATA) {
                return false; // the holes are not told: all of it is copied
            }
            more = true;
        }
        const std::size_t count = got / sizeof(ranges[0]);
        for (std::size_t i = 0; i < count; ++i) {
            if (!::SetFilePointerEx(source, ranges[i].FileOffset, nullptr, FILE_BEGIN) ||
                !::SetFilePointerEx(target, ranges[i].FileOffset, nullptr, FILE_BEGIN)) {
                const DWORD code = ::GetLastError();
                _throwError(L"Unable to seek", code,
                            {L"", "OrdinaryStreamCopy::copyRanges", __LINE__});
            }
            const std::int64_t from = ranges[i].FileOffset.QuadPart;
            copyData(source, target, from, from + ranges[i].Length.QuadPart);
        }
        if (more && count != 0) {
            const std::int64_t next =
                ranges[count - 1].FileOffset.QuadPart + ranges[count - 1].Length.QuadPart;
            asked.FileOffset.QuadPart = next;
            asked.Length.QuadPart = size - next;
        }
        more = more && count != 0;
    }
    FILE_END_OF_FILE_INFO end;
    end.EndOfFile.QuadPart = size;
    if (!::SetFileInformationByHandle(target, FileEndOfFileInfo, &end, sizeof(end))) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to set size", code, {L"", "OrdinaryStreamCopy::copyRanges", __LINE__});
    }
    return true;
}

void OrdinaryStreamCopy::copyNamedStreams(const std::wstring& source, const std::wstring& target,
                                          bool keep) {
    std::vector<StreamEntry> streams;
    const DWORD listed = listNamedStreams(source, streams);
    if (listed != ERROR_SUCCESS && !isBackupRefused(listed)) { // refused: there are none to list
        throwForPath(L"Unable to list streams (%s)", source, listed,
                     "OrdinaryStreamCopy::copyNamedStreams", __LINE__);
    }
    for (const StreamEntry& stream : streams) {
        if (!keep) {
            report_.add(CopyLoss::AlternateStream, source + stream.name);
            continue;
        }
        const AutoHandle from = RunTime::openExisting(source + stream.name, GENERIC_READ, shareAll);
        if (!from) {
            const DWORD code = ::GetLastError();
            throwForPath(L"Unable to open (%s)", source + stream.name, code,
                         "OrdinaryStreamCopy::copyNamedStreams", __LINE__);
        }
        const AutoHandle to(::CreateFileW(
            (target + stream.name).c_str(), GENERIC_WRITE, shareAll, nullptr, CREATE_NEW,
            FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
        if (!to) {
            const DWORD code = ::GetLastError();
            throwForPath(L"Unable to create (%s)", target + stream.name, code,
                         "OrdinaryStreamCopy::copyNamedStreams", __LINE__);
        }
        copyData(from.get(), to.get(), 0, stream.size);
    }
}

void OrdinaryStreamCopy::copyReparsePoint(HANDLE source, HANDLE target, const std::wstring& path) {
    unsigned char* const buffer = shared_.buffer();
    DWORD bytes = 0;
    if (!::DeviceIoControl(source, FSCTL_GET_REPARSE_POINT, nullptr, 0, buffer,
                           MAXIMUM_REPARSE_DATA_BUFFER_SIZE, &bytes, nullptr)) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to read link (%s)", path, code,
                     "OrdinaryStreamCopy::copyReparsePoint", __LINE__);
    }
    DWORD got = 0;
    if (!::DeviceIoControl(target, FSCTL_SET_REPARSE_POINT, buffer, bytes, nullptr, 0, &got,
                           nullptr)) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to create link (%s)", path, code,
                     "OrdinaryStreamCopy::copyReparsePoint", __LINE__);
    }
}
