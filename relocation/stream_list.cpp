#include "relocation/stream_list.h"

#include "runtime/auto_handle.h"

#include <string_view>

namespace {

struct FindTraits {
    using Value = HANDLE;
    static Value none() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(Value value) noexcept { ::FindClose(value); }
};
using FindHandle = RunTime::AutoResource<FindTraits>;

} // namespace

DWORD listNamedStreams(const std::wstring& path, std::vector<StreamEntry>& streams) {
    streams.clear();
    WIN32_FIND_STREAM_DATA data{};
    const FindHandle find(::FindFirstStreamW(path.c_str(), FindStreamInfoStandard, &data, 0));
    if (!find) {
        const DWORD code = ::GetLastError();
        // No stream at all is a directory's normal state, told as the end of the list.
        return code == ERROR_HANDLE_EOF || code == ERROR_INVALID_PARAMETER ? ERROR_SUCCESS : code;
    }
    do {
        if (std::wstring_view(data.cStreamName) != L"::$DATA") {
            streams.push_back({data.cStreamName, data.StreamSize.QuadPart});
        }
    } while (::FindNextStreamW(find.get(), &data));
    const DWORD code = ::GetLastError();
    return code == ERROR_HANDLE_EOF ? ERROR_SUCCESS : code;
}
