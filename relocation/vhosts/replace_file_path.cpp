#include "relocation/vhosts/replace_file_path.h"

#include "runtime/accounts/privilege_scope.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/pinned_directories.h"
#include "runtime/log_manager.h"
#include "runtime/native_span.h"
#include "runtime/text.h"
#include "runtime/wipe.h"
#include "security/descriptor_bytes.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

namespace RunTime {

namespace {

using Bytes = std::vector<char, WipingAllocator<char>>; // settings have passwords in them

constexpr LONGLONG largest = 16 * 1024 * 1024;
constexpr std::size_t largestResult = 64 * 1024 * 1024; // a long path may come in often
constexpr DWORD keptAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                 FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE |
                                 FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

[[noreturn]] void fail(const std::wstring& file, DWORD code, int line) {
    throwForPath(L"Unable to replace a path in (%s)", file, code, "RunTime::replaceFilePathInFile",
                 line);
}

void check(BOOL done, const std::wstring& file, int line) {
    if (!done) {
        const DWORD code = ::GetLastError();
        fail(file, code, line);
    }
}

// None where the code page cannot write the text exactly.
std::optional<std::string> encoded(const std::wstring& text, UINT codePage) {
    const int length = static_cast<int>(text.size());
    const DWORD flags = codePage == CP_UTF8 ? WC_ERR_INVALID_CHARS : WC_NO_BEST_FIT_CHARS;
    BOOL replaced = FALSE;
    BOOL* const asked = codePage == CP_UTF8 ? nullptr : &replaced; // the system's rule
    std::string bytes(text.size() * 4, '\0');
    const int size = ::WideCharToMultiByte(codePage, flags, text.data(), length, bytes.data(),
                                           static_cast<int>(bytes.size()), nullptr, asked);
    if (replaced || (size == 0 && length != 0)) {
        return std::nullopt;
    }
    bytes.resize(static_cast<std::size_t>(size));
    return bytes;
}

std::wstring withSeparators(const std::wstring& path, std::wstring_view separator) {
    std::wstring result;
    for (const wchar_t c : path) {
        c == L'\\' ? result.append(separator) : result.append(1, c);
    }
    return result;
}

char folded(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool isAlphanumeric(char c) {
    const char lower = folded(c);
    return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') ||
           static_cast<unsigned char>(c) >= 0x80;
}

// Finds the old path's spellings in a text and writes it with the new path's.
class PathReplacer {
public:
    PathReplacer(const std::wstring& oldPath, const std::wstring& newPath, UINT codePage) {
        for (const char* separator : {"\\", "\\\\", "/"}) {
            const auto spelled = [&](const std::wstring& path) {
                return encoded(withSeparators(path, toWide(separator)), codePage);
            };
            const auto from = spelled(oldPath);
            if (!from) {
                return; // so it cannot be in the text
            }
            forms_.push_back({*from, spelled(newPath).value_or(""), separator});
        }
    }

    std::size_t replace(std::string_view text, Bytes& result, const std::wstring& file) const {
        std::size_t count = 0;
        result.reserve(text.size() + text.size() / 8);
        for (std::size_t at = 0; at < text.size();) {
            const auto form =
                std::find_if(forms_.begin(), forms_.end(),
                             [&](const Form& candidate) { return isAt(text, at, candidate.from); });
            if (form == forms_.end()) {
                result.push_back(text[at++]);
                continue;
            }
            if (form->to.empty()) {
                fail(file, ERROR_NO_UNICODE_TRANSLATION, __LINE__);
            }
            result.insert(result.end(), form->to.begin(), form->to.end());
            at += form->from.size();
            if (form->to.back() == ':' && (at == text.size() || !isSeparator(text[at]))) {
                // "E:" alone would be the drive's current directory.
                result.insert(result.end(), form->separator.begin(), form->separator.end());
            }
            if (result.size() > largestResult) {
                fail(file, ERROR_FILE_TOO_LARGE, __LINE__);
            }
            ++count;
        }
        return count;
    }

private:
    struct Form {
        std::string from;
        std::string to; // empty: the text's encoding cannot write it
        std::string_view separator;
    };

    static bool isSeparator(char c) { return c == '\\' || c == '/'; }

    static bool isAt(std::string_view text, std::size_t at, std::string_view path) {
        return text.size() - at >= path.size() && folded(text[at]) == folded(path[0]) &&
               std::equal(path.begin(), path.end(), text.begin() + static_cast<std::ptrdiff_t>(at),
                          [](char a, char b) { return folded(a) == folded(b); }) &&
               !(at > 0 && (isAlphanumeric(text[at - 1]) || text[at - 1] == '_' ||
                            (isSeparator(path[0]) && text[at - 1] == path[0]))) &&
               !goesOn(text.substr(at + path.size()));
    }

    // Whether the last name of a path goes on in what follows it.
    static bool goesOn(std::string_view rest) {
        const std::size_t name = rest.find_first_not_of('.'); // one may end a sentence
        return name != rest.npos && (isAlphanumeric(rest[name]) ||
                                     std::string_view("_-~$@#+=&!%").find(rest[name]) != rest.npos);
    }

    std::vector<Form> forms_;
};

struct OldFile {
    AutoHandle handle;
    FILE_BASIC_INFO basic = {};
    DescriptorBytes descriptor;
    Bytes content;
};

// No handle when there is nothing to rewrite.
OldFile readOld(const std::wstring& file) {
    OldFile old;
    for (Retry retry(defaultTryCount);;) {
        old.handle = openExisting(file, GENERIC_READ | FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ);
        if (old.handle) {
            break;
        }
        const DWORD code = ::GetLastError();
        if (meansMissing(code)) {
            return {};
        }
        if (!retry.again(code)) {
            fail(file, code, __LINE__);
        }
    }
    FileInformation kind;
    if (const DWORD code = readKind(old.handle.get(), kind)) {
        fail(file, code, __LINE__);
    }
    if (kind.isDirectory() || (kind.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        LogManager::getInstance().vAddLog(LogType::Warning, L"Not rewritten, for it is no plain "
                                                            L"file: " +
                                                                nicePath(file));
        return {};
    }
    LARGE_INTEGER size = {};
    check(::GetFileInformationByHandleEx(old.handle.get(), FileBasicInfo, &old.basic,
                                         sizeof old.basic) &&
              ::GetFileSizeEx(old.handle.get(), &size),
          file, __LINE__);
    if (size.QuadPart > largest || (old.basic.FileAttributes & FILE_ATTRIBUTE_ENCRYPTED) != 0) {
        // A new file would be encrypted for others than the old one is, or for nobody.
        fail(file, size.QuadPart > largest ? ERROR_FILE_TOO_LARGE : ERROR_FILE_ENCRYPTED, __LINE__);
    }
    if (const DWORD code = readDescriptor(old.handle.get(), false, old.descriptor)) {
        fail(file, code, __LINE__);
    }
    old.content.resize(static_cast<std::size_t>(size.QuadPart));
    DWORD got = 0;
    check(::ReadFile(old.handle.get(), old.content.data(), static_cast<DWORD>(old.content.size()),
                     &got, nullptr),
          file, __LINE__);
    old.content.resize(got);
    return old;
}

// The new file with all that the old one has.
void writeNew(const std::wstring& name, OldFile& old, const Bytes& content,
              const std::wstring& file) {
    const AutoHandle handle(
        ::CreateFileW(name.c_str(), GENERIC_WRITE | WRITE_DAC | WRITE_OWNER, 0, nullptr, CREATE_NEW,
                      FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    check(static_cast<bool>(handle), file, __LINE__);
    DWORD code = writeDescriptor(handle.get(), old.descriptor, true, false);
    if (code == ERROR_INVALID_OWNER || code == ERROR_PRIVILEGE_NOT_HELD) {
        code = writeDescriptor(handle.get(), old.descriptor, false, false);
    }
    if (code != ERROR_SUCCESS) {
        fail(file, code, __LINE__);
    }
    DWORD written = 0;
    check(::WriteFile(handle.get(), content.data(), static_cast<DWORD>(content.size()), &written,
                      nullptr),
          file, __LINE__);
    if (written != content.size()) {
        fail(file, ERROR_DISK_FULL, __LINE__);
    }
    FILE_BASIC_INFO basic = {};
    basic.CreationTime = old.basic.CreationTime;
    basic.FileAttributes = old.basic.FileAttributes & keptAttributes;
    if (basic.FileAttributes == 0) {
        basic.FileAttributes = FILE_ATTRIBUTE_NORMAL; // zero would leave what a new file gets
    }
    check(::SetFileInformationByHandle(handle.get(), FileBasicInfo, &basic, sizeof basic) &&
              ::FlushFileBuffers(handle.get()),
          file, __LINE__);
}

// A read-only file is not replaced by a rename.
void setReadOnly(const OldFile& old, bool readOnly, const std::wstring& file) {
    if (old.basic.FileAttributes & FILE_ATTRIBUTE_READONLY) {
        FILE_BASIC_INFO basic = {};
        basic.FileAttributes =
            readOnly ? old.basic.FileAttributes : static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL);
        const AutoHandle again =
            old.handle ? AutoHandle() : openExisting(file, FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ);
        check(::SetFileInformationByHandle(old.handle ? old.handle.get() : again.get(),
                                           FileBasicInfo, &basic, sizeof basic),
              file, __LINE__);
    }
}

// For what follows a failure, which is the one to be seen.
template <class Action>
void cleanUp(Action&& action) {
    try {
        action();
    } catch (const vexception& error) {
        LogManager::getInstance().vAddLog(LogType::Warning, error.what());
    }
}

void replaceBy(const std::wstring& name, OldFile& old, const std::wstring& file) {
    setReadOnly(old, false, file);
    old.handle.reset(); // nothing that is open is replaced
    try {
        moveEx(name, file, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
    } catch (...) { // whatever it was
        cleanUp([&] { setReadOnly(old, true, file); });
        throw;
    }
}

} // namespace

std::size_t replaceFilePathInFile(const std::wstring& file, const std::wstring& oldPath,
                                  const std::wstring& newPath, const std::wstring& root) {
    const NativeSpan span("RunTime::replaceFilePathInFile", __LINE__);
    const auto plain = [](const std::wstring& path) {
        std::wstring text = nicePath(longPath(path));
        text.resize(text.find_last_not_of(L'\\') + 1);
        return text;
    };
    const std::wstring from = plain(oldPath);
    const std::wstring to = plain(newPath);
    const std::wstring name = longPath(file);
    const PrivilegeScope privileges({SE_BACKUP_NAME, SE_RESTORE_NAME});
    const std::vector<AutoHandle> held =
        openPinnedDirectories(root.empty() ? parentPath(name) : longPath(root), name);
    if (held.empty()) {
        return 0;
    }
    OldFile old = readOld(name);
    if (!old.handle) {
        return 0;
    }
    const std::string_view text(old.content.data(), old.content.size());
    const bool isUtf8 =
        text.empty() || ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                                              static_cast<int>(text.size()), nullptr, 0) != 0;
    Bytes content;
    const std::size_t count =
        PathReplacer(from, to, isUtf8 ? CP_UTF8 : CP_ACP).replace(text, content, name);
    if (count == 0) {
        return 0;
    }
    const std::wstring temporary = temporaryName(parentPath(name), L"$Replace");
    try {
        writeNew(temporary, old, content, name);
        replaceBy(temporary, old, name);
    } catch (...) { // whatever it was
        cleanUp([&] { deleteFile(temporary); });
        throw;
    }
    return count;
}

} // namespace RunTime
