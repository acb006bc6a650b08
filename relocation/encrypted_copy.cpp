#include "relocation/encrypted_copy.h"

#include "runtime/auto_handle.h"
#include "runtime/files/file.h"

#include <windows.h>

namespace {

struct RawTraits {
    using Value = void*;
    static Value none() noexcept { return nullptr; }
    static void close(Value value) noexcept { ::CloseEncryptedFileRaw(value); }
};
using AutoRawFile = RunTime::AutoResource<RawTraits>;

// The system's callbacks: no exception may pass through its frames, so codes go back.
DWORD CALLBACK takeRaw(BYTE* data, void* staged, ULONG bytes) {
    DWORD written = 0;
    if (!::WriteFile(staged, data, bytes, &written, nullptr)) {
        return ::GetLastError();
    }
    return written == bytes ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

DWORD CALLBACK giveRaw(BYTE* data, void* staged, ULONG* bytes) {
    DWORD got = 0;
    if (!::ReadFile(staged, data, *bytes, &got, nullptr)) {
        return ::GetLastError();
    }
    *bytes = got;
    return ERROR_SUCCESS;
}

void check(DWORD code, const wchar_t* format, const std::wstring& path, int line) {
    if (code != ERROR_SUCCESS) {
        RunTime::throwForPath(format, path, code, "copyEncryptedFile", line);
    }
}

} // namespace

void copyEncryptedFile(const std::wstring& source, const std::wstring& target,
                       const std::wstring& temporaryDirectory) {
    const std::wstring stagedName = RunTime::temporaryName(temporaryDirectory, L"$Raw");
    const RunTime::AutoHandle staged(::CreateFileW(
        stagedName.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr, CREATE_NEW,
        FILE_ATTRIBUTE_TEMPORARY | FILE_ATTRIBUTE_SYSTEM | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    if (!staged) {
        check(::GetLastError(), L"Unable to create (%s)", stagedName, __LINE__);
    }
    AutoRawFile raw;
    check(::OpenEncryptedFileRawW(source.c_str(), 0, raw.put()),
          L"Unable to read encrypted file (%s)", source, __LINE__);
    check(::ReadEncryptedFileRaw(takeRaw, staged.get(), raw.get()),
          L"Unable to read encrypted file (%s)", source, __LINE__);

    LARGE_INTEGER start = {};
    if (!::SetFilePointerEx(staged.get(), start, nullptr, FILE_BEGIN)) {
        check(::GetLastError(), L"Unable to read encrypted file (%s)", source, __LINE__);
    }
    check(::OpenEncryptedFileRawW(target.c_str(), CREATE_FOR_IMPORT | OVERWRITE_HIDDEN, raw.put()),
          L"Unable to write encrypted file (%s)", target, __LINE__);
    check(::WriteEncryptedFileRaw(giveRaw, staged.get(), raw.get()),
          L"Unable to write encrypted file (%s)", target, __LINE__);
}
