#include "runtime/files/whole_file.h"

#include "runtime/auto_ptr.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/log_manager.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <sddl.h>

namespace RunTime {

WholeFile::WholeFile(const std::wstring& path) : path_(longPath(path)) {
    if (isDirectory(path_)) { // found now, not when all the work is done
        throwForPath(L"Unable to create file (%s)", path_, ERROR_ALREADY_EXISTS,
                     "RunTime::WholeFile::WholeFile", __LINE__);
    }
    LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> descriptor;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(
            L"D:P(A;;FA;;;SY)(A;;FA;;;BA)", SDDL_REVISION_1, descriptor.put(), nullptr)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to build a security descriptor", code,
                    {L"", "RunTime::WholeFile::WholeFile", __LINE__});
    }
    SECURITY_ATTRIBUTES security{sizeof security, descriptor.get(), FALSE};
    for (Retry retry(defaultTryCount);;) {
        const std::wstring name = temporaryName(parentPath(path_), lastName(path_) + L".part");
        file_.reset(::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, &security,
                                  CREATE_NEW, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN,
                                  nullptr));
        if (file_) {
            name_ = name;
            return;
        }
        const DWORD code = ::GetLastError();
        if (code != ERROR_FILE_EXISTS && !retry.again(code)) {
            throwForPath(L"Unable to create file (%s)", path_, code,
                         "RunTime::WholeFile::WholeFile", __LINE__);
        }
    }
}

WholeFile::~WholeFile() {
    if (name_.empty()) {
        return;
    }
    file_.reset();
    try {
        const ThreadCancelation::CancelationPoint shield(false);
        deleteFile(name_);
    } catch (const vexception& e) {
        LogManager::getInstance().vAddLog(LogType::Error, e.what());
    }
}

void WholeFile::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const DWORD part = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), 1U << 30));
        DWORD written = 0;
        DWORD code = ERROR_SUCCESS;
        if (!::WriteFile(file_.get(), bytes.data(), part, &written, nullptr)) {
            code = ::GetLastError();
        } else if (written == 0) {
            code = ERROR_DISK_FULL;
        }
        if (code != ERROR_SUCCESS) {
            throwForPath(L"Unable to write file (%s)", path_, code, "RunTime::WholeFile::write",
                         __LINE__);
        }
        bytes.remove_prefix(written);
        size_ += written;
    }
}

std::size_t WholeFile::readBack(std::span<char> to) {
    if (!reading_) {
        rewindFile(file_.get(), path_);
        reading_ = true;
    }
    return readFile(file_.get(), to, path_);
}

void WholeFile::commit() {
    if (!::FlushFileBuffers(file_.get())) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to write file (%s)", path_, code, "RunTime::WholeFile::commit",
                     __LINE__);
    }
    file_.reset();
    moveEx(name_, path_, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
    name_.clear();
}

std::size_t readFile(HANDLE file, std::span<char> to, const std::wstring& path) {
    DWORD got = 0;
    if (!::ReadFile(file, to.data(), static_cast<DWORD>(to.size()), &got, nullptr)) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to read file (%s)", path, code, "RunTime::readFile", __LINE__);
    }
    return got;
}

void rewindFile(HANDLE file, const std::wstring& path) {
    if (!::SetFilePointerEx(file, {}, nullptr, FILE_BEGIN)) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to read file (%s)", path, code, "RunTime::rewindFile", __LINE__);
    }
}

} // namespace RunTime
