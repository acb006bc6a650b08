// NtfsFake: encrypted files as raw data. The "encryption" is a mark in front of the plain bytes,
// and both turned over, so that a plain copy is told from a raw one.
#include "tests/support/ntfs_fake_state.h"

#include <winefs.h>

namespace ntfs {

namespace {

constexpr char mark[] = "raw:";

using Raw = UnixFile;

std::string turned(std::string bytes) {
    for (char& byte : bytes) {
        byte = static_cast<char>(byte ^ 0x5A);
    }
    return bytes;
}

DWORD WINAPI openRaw(LPCWSTR path, ULONG flags, PVOID* context) {
    const Lock lock;
    const bool import = (flags & CREATE_FOR_IMPORT) != 0;
    if (import && (volumeFlagsOf(path) & FILE_SUPPORTS_ENCRYPTION) == 0) {
        return ERROR_VOLUME_NOT_SUPPORT_EFS;
    }
    UnixFile file(unixPath(path), unixcall::OnlyPath | unixcall::NoFollow);
    Extra* extra = extraOf(file, import);
    if (!file) {
        return ERROR_FILE_NOT_FOUND;
    }
    if (import) {
        extra->flags |= FILE_ATTRIBUTE_ENCRYPTED;
    } else if (extra == nullptr || (extra->flags & FILE_ATTRIBUTE_ENCRYPTED) == 0) {
        return ERROR_FILE_NOT_ENCRYPTED;
    }
    *context = std::make_unique<Raw>(std::move(file)).release();
    return ERROR_SUCCESS;
}

DWORD WINAPI readRaw(PFE_EXPORT_FUNC take, PVOID argument, PVOID context) {
    const Raw& raw = *static_cast<Raw*>(context);
    std::string bytes = turned(mark + unixRead(raw.proc()));
    DWORD code = ERROR_SUCCESS;
    for (std::size_t at = 0; at < bytes.size() && code == ERROR_SUCCESS; at += 4096) {
        const auto count = static_cast<ULONG>(std::min<std::size_t>(4096, bytes.size() - at));
        code = take(reinterpret_cast<PBYTE>(bytes.data() + at), argument, count);
    }
    return code;
}

DWORD WINAPI writeRaw(PFE_IMPORT_FUNC give, PVOID argument, PVOID context) {
    const Raw& raw = *static_cast<Raw*>(context);
    std::string bytes;
    std::vector<BYTE> buffer(3000);
    for (ULONG count = 3000; count != 0; bytes.append(buffer.begin(), buffer.begin() + count)) {
        count = 3000;
        if (const DWORD code = give(buffer.data(), argument, &count)) {
            return code;
        }
    }
    bytes = turned(bytes);
    if (!bytes.starts_with(mark)) {
        return ERROR_INVALID_DATA;
    }
    return errorOf(unixWrite(raw.proc(), bytes.substr(std::size(mark) - 1)));
}

void WINAPI closeRaw(PVOID context) {
    const std::unique_ptr<Raw> raw(static_cast<Raw*>(context));
}

} // namespace

void patchEncrypted(State& to) {
    patch(to, "OpenEncryptedFileRawW", openRaw);
    patch(to, "ReadEncryptedFileRaw", readRaw);
    patch(to, "WriteEncryptedFileRaw", writeRaw);
    patch(to, "CloseEncryptedFileRaw", closeRaw);
}

} // namespace ntfs
