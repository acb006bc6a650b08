#include "tests/support/tree_image.h"

#include "runtime/auto_handle.h"
#include "runtime/text.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/unix_call.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>
#include <winioctl.h> // after windows.h

namespace {

using Handle = RunTime::AutoHandle;

Handle open(const std::wstring& path, DWORD access, DWORD disposition, DWORD attributes = 0) {
    return Handle(::CreateFileW(
        path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        disposition, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT | attributes,
        nullptr));
}

std::wstring combined(std::wstring directory, const std::wstring& name) {
    return directory.append(L"\\").append(name);
}

std::wstring longForm(std::wstring path) {
    while (path.size() > 3 && path.back() == L'\\' && path[path.size() - 2] != L':') {
        path.pop_back();
    }
    return path.starts_with(L"\\\\?\\") ? path : std::wstring(L"\\\\?\\").append(path);
}

std::string contentOf(HANDLE file, DWORD& error) {
    static std::vector<char> buffer(1 << 20);
    std::string content;
    for (DWORD read = 1; read != 0; content.append(buffer.data(), read)) {
        if (!::ReadFile(file, buffer.data(), static_cast<DWORD>(buffer.size()), &read, nullptr)) {
            error = ::GetLastError();
            break;
        }
    }
    return content;
}

std::string securityOf(HANDLE handle, DWORD& error) {
    const SECURITY_INFORMATION parts =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    alignas(8) static char descriptor[64 * 1024]; // no list is longer
    DWORD needed = 0;
    if (!::GetKernelObjectSecurity(handle, parts, descriptor, sizeof descriptor, &needed)) {
        error = ::GetLastError();
        return {};
    }
    return {descriptor, ::GetSecurityDescriptorLength(descriptor)};
}

std::string reparseOf(HANDLE handle, const std::wstring& path, DWORD& error) {
    std::string data(MAXIMUM_REPARSE_DATA_BUFFER_SIZE, '\0');
    DWORD length = 0;
    if (handle != nullptr &&
        ::DeviceIoControl(handle, FSCTL_GET_REPARSE_POINT, nullptr, 0, data.data(),
                          static_cast<DWORD>(data.size()), &length, nullptr)) {
        data.resize(length);
        return data;
    }
    const DWORD code = ::GetLastError();
    data = unixReadLink(unixPath(path));
    error = data.empty() ? code : error;
    return data;
}

void streamsOf(const std::wstring& path, ItemImage& item) {
    WIN32_FIND_STREAM_DATA found;
    const HANDLE find = ::FindFirstStreamW(path.c_str(), FindStreamInfoStandard, &found, 0);
    if (find == INVALID_HANDLE_VALUE) {
        const DWORD code = ::GetLastError();
        item.error = code == ERROR_HANDLE_EOF ? item.error : code;
        return;
    }
    do {
        const std::wstring name = found.cStreamName;
        if (name != L"::$DATA") {
            const std::wstring stream = path + name.substr(0, name.rfind(L':'));
            const Handle handle = open(stream, GENERIC_READ, OPEN_EXISTING);
            item.streams[name] = handle ? contentOf(handle.get(), item.error) : "cannot be opened";
        }
    } while (::FindNextStreamW(find, &found));
    ::FindClose(find);
}

// What the listing of a directory cannot tell is asked of the item's own handle.
ItemImage itemOf(const std::wstring& path, const ImageOptions& options,
                 std::map<std::pair<std::uint64_t, DWORD>, std::wstring>& linked,
                 const std::wstring& name) {
    ItemImage item;
    unixcall::Stat64 unixItem;
    const bool unixLink = unixStat(unixPath(path), unixItem) && unixItem.isLink();
    const Handle handle = open(path, GENERIC_READ, OPEN_EXISTING);
    BY_HANDLE_FILE_INFORMATION info = {};
    FILE_ATTRIBUTE_TAG_INFO tag = {};
    FILE_BASIC_INFO basic = {};
    if (!handle ||
        !::GetFileInformationByHandleEx(handle.get(), FileAttributeTagInfo, &tag, sizeof tag) ||
        !::GetFileInformationByHandleEx(handle.get(), FileBasicInfo, &basic, sizeof basic) ||
        !::GetFileInformationByHandle(handle.get(), &info)) {
        item.error = unixLink ? 0 : ::GetLastError();
    }
    const bool reparse = (tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    const bool directory = (tag.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (unixLink && !reparse) { // Wine opened what it names, which is none of ours
        item.kind = ItemImage::Kind::Link;
        item.reparse = reparseOf(nullptr, path, item.error);
        return item;
    }
    item.kind = directory ? ItemImage::Kind::Directory : ItemImage::Kind::File;
    item.attributes = tag.FileAttributes & ~DWORD(FILE_ATTRIBUTE_NORMAL);
    if (!directory || options.directoryTimes) {
        // Wine shows the older of the times of writing and of change as that of creation.
        const bool isKept = !underWine() || NtfsFake::isAlive();
        item.written = basic.LastWriteTime.QuadPart;
        item.created = isKept ? basic.CreationTime.QuadPart : 0;
    }
    if (item.error != 0) {
        return item;
    }
    if (reparse) {
        item.reparse = reparseOf(handle.get(), path, item.error);
        if (IsReparseTagNameSurrogate(tag.ReparseTag)) {
            item.kind = ItemImage::Kind::Link;
        }
    }
    if (item.kind == ItemImage::Kind::File) {
        item.size = static_cast<std::int64_t>(info.nFileSizeHigh) << 32 | info.nFileSizeLow;
        item.content = contentOf(handle.get(), item.error);
        if (info.nNumberOfLinks > 1) {
            const auto id = std::pair(static_cast<std::uint64_t>(info.nFileIndexHigh) << 32 |
                                          info.nFileIndexLow,
                                      info.dwVolumeSerialNumber);
            item.linkedTo = linked.try_emplace(id, name).first->second;
            item.linkedTo = item.linkedTo == name ? L"(others)" : item.linkedTo;
        }
    }
    if (options.security) {
        item.security = securityOf(handle.get(), item.error);
    }
    if (item.kind != ItemImage::Kind::Link) {
        streamsOf(path, item);
    }
    return item;
}

std::vector<std::wstring> namesIn(const std::wstring& path) {
    std::vector<std::wstring> names;
    const Handle directory = open(path, FILE_LIST_DIRECTORY, OPEN_EXISTING);
    alignas(8) char buffer[16384];
    while (directory && ::GetFileInformationByHandleEx(directory.get(), FileIdBothDirectoryInfo,
                                                       buffer, sizeof buffer)) {
        for (const char* next = buffer; next != nullptr;) {
            const auto* entry = reinterpret_cast<const FILE_ID_BOTH_DIR_INFO*>(next);
            const std::wstring name(entry->FileName, entry->FileNameLength / sizeof(wchar_t));
            if (name != L"." && name != L"..") {
                names.push_back(name);
            }
            next = entry->NextEntryOffset != 0 ? next + entry->NextEntryOffset : nullptr;
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string printable(const std::string& bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string result;
    for (const char c : bytes.substr(0, 48)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f) {
            result += c;
        } else {
            result += {'\\', digits[byte >> 4], digits[byte & 15]};
        }
    }
    return result + (bytes.size() > 48 ? "... (" + std::to_string(bytes.size()) + ")" : "");
}

// Every field as text, under its name, so that what differs can be told.
std::vector<std::pair<const char*, std::string>> fieldsOf(const ItemImage& item) {
    static constexpr const char* kinds[] = {"file", "directory", "link"};
    std::ostringstream attributes;
    attributes << std::hex << "0x" << item.attributes;
    std::string streams;
    for (const auto& [name, content] : item.streams) {
        streams += toUtf8(name) + "=" + printable(content) + " ";
    }
    return {{"kind", kinds[static_cast<int>(item.kind)]},
            {"attributes", attributes.str()},
            {"size", std::to_string(item.size)},
            {"content", printable(item.content)},
            {"created", std::to_string(item.created)},
            {"written", std::to_string(item.written)},
            {"streams", streams},
            {"security", printable(item.security)},
            {"reparse", printable(item.reparse)},
            {"linkedTo", toUtf8(item.linkedTo)},
            {"error", std::to_string(item.error)}};
}

void check(bool done, const char* what, const std::wstring& path) {
    if (!done) {
        const DWORD code = ::GetLastError();
        throw std::runtime_error(std::string(what) + " failed with " + std::to_string(code) + ": " +
                                 toUtf8(path));
    }
}

} // namespace

TreeImage imageOf(const std::wstring& path, const ImageOptions& options) {
    const std::wstring root = longForm(path);
    TreeImage image;
    std::map<std::pair<std::uint64_t, DWORD>, std::wstring> linked;
    const std::function<void(const std::wstring&)> add = [&](const std::wstring& name) {
        const std::wstring full = name.empty() ? root : combined(root, name);
        const ItemImage& item = image[name] = itemOf(full, options, linked, name);
        if (item.kind == ItemImage::Kind::Directory) {
            for (const std::wstring& child : namesIn(full)) {
                add(name.empty() ? child : combined(name, child));
            }
        }
    };
    add(L"");
    const DWORD error = image[L""].error;
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
        image.clear();
    }
    return image;
}

testing::AssertionResult sameTree(const TreeImage& expected, const TreeImage& actual) {
    std::string lines;
    for (const auto& [name, item] : expected) {
        const auto other = actual.find(name);
        if (other == actual.end()) {
            lines.append("'").append(toUtf8(name)).append("' is missing\n");
        } else if (!(item == other->second)) {
            const auto was = fieldsOf(item), is = fieldsOf(other->second);
            lines.append("'").append(toUtf8(name)).append("'");
            for (std::size_t i = 0; i < was.size(); ++i) {
                if (was[i] != is[i]) {
                    lines.append(" ").append(was[i].first).append(": ").append(was[i].second);
                    lines.append(" -> ").append(is[i].second).append(";");
                }
            }
            lines += "\n";
        }
    }
    for (const auto& [name, item] : actual) {
        if (!expected.contains(name)) {
            lines.append("'").append(toUtf8(name)).append("' is new\n");
        }
    }
    if (lines.empty()) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "the trees differ:\n" << lines;
}

std::string sampleBytes(std::size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    std::uint32_t state = seed * 2654435761u + 1;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

TreeBuilder::TreeBuilder(const std::wstring& root) : root_(longForm(root)) {
    directory(L"");
}

TreeBuilder::~TreeBuilder() noexcept(false) {
    finish();
}

std::wstring TreeBuilder::path(const std::wstring& name) const {
    return name.empty() ? root_ : combined(root_, name);
}

TreeBuilder& TreeBuilder::directory(const std::wstring& name, DWORD attributes,
                                    std::int64_t written) {
    if (!pending_.contains(path(name)) && !name.empty() && name.find(L'\\') != name.npos) {
        const std::wstring parent = name.substr(0, name.rfind(L'\\'));
        if (!pending_.contains(path(parent))) {
            directory(parent);
        }
    }
    check(::CreateDirectoryW(path(name).c_str(), nullptr) ||
              ::GetLastError() == ERROR_ALREADY_EXISTS,
          "CreateDirectoryW", path(name));
    pending_[path(name)] = {attributes, written};
    return *this;
}

TreeBuilder& TreeBuilder::file(const std::wstring& name, const std::string& content,
                               DWORD attributes, std::int64_t written) {
    if (const auto slash = name.rfind(L'\\');
        slash != name.npos && !pending_.contains(path(name.substr(0, slash)))) {
        directory(name.substr(0, slash));
    }
    const Handle handle = open(path(name), GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    check(static_cast<bool>(handle), "CreateFileW", path(name));
    DWORD done = 0;
    check(::WriteFile(handle.get(), content.data(), static_cast<DWORD>(content.size()), &done,
                      nullptr),
          "WriteFile", path(name));
    pending_[path(name)] = {attributes, written};
    return *this;
}

TreeBuilder& TreeBuilder::hardLink(const std::wstring& name, const std::wstring& existing) {
    check(::CreateHardLinkW(path(name).c_str(), path(existing).c_str(), nullptr), "CreateHardLinkW",
          path(name));
    return *this;
}

TreeBuilder& TreeBuilder::link(const std::wstring& name, const std::string& target) {
    check(unixSymlink(target, path(name)), "symlink", path(name));
    return *this;
}

TreeBuilder& TreeBuilder::everything() {
    const std::wstring part(60, L'n');
    std::wstring deep = L"deep";
    for (int level = 0; level < 6; ++level) { // more than 260 characters, more than MAX_PATH
        deep += L"\\" + part + std::to_wstring(level);
    }
    return file(L"empty")
        .directory(L"empty directory")
        .directory(L"empty directories\\a\\b\\c")
        .file(L"small", "text\r\n")
        .file(L"one chunk", sampleBytes(1 << 20, 2))
        .file(L"large", sampleBytes((1 << 20) * 2 + 12345, 3))
        .file(L"hidden", "h", FILE_ATTRIBUTE_HIDDEN)
        .file(L"read only", "r", FILE_ATTRIBUTE_READONLY)
        .file(L"all", "a", FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)
        .file(L"empty read only", "", FILE_ATTRIBUTE_READONLY)
        .directory(L"hidden directory", FILE_ATTRIBUTE_HIDDEN, defaultTime + 1)
        .directory(L"system directory", FILE_ATTRIBUTE_SYSTEM)
        .file(L"system directory\\inside", "i", 0, defaultTime - 77)
        .file(L"J\u00fcrgen \u65e5\u672c \u0416\\\U0001F600.txt", "emoji")
        .file(L"odd\\con.txt", "device")
        .file(L"odd\\trailing dot.", "dot")
        .file(L"odd\\trailing blank ", "blank")
        .file(L"odd\\100%d & %s (1)", "format")
        .file(L"odd\\'; DROP TABLE x;--", "quote")
        .directory(L"odd\\dots...")
        .file(L"odd\\dots...\\aux", "aux")
        .file(L"old", "before 1970", 0, 100'000'000'000'000'000)
        .file(deep + L"\\bottom", "bottom", FILE_ATTRIBUTE_HIDDEN)
        .file(L"links\\first", "linked")
        .hardLink(L"links\\second", L"links\\first")
        .hardLink(L"third link", L"links\\first");
}

void TreeBuilder::finish() {
    // From behind: a directory's own times come after everything below it.
    while (!pending_.empty()) {
        const auto [full, wanted] = *std::prev(pending_.end());
        pending_.erase(std::prev(pending_.end()));
        const Handle handle = open(full, FILE_WRITE_ATTRIBUTES, OPEN_EXISTING);
        FILE_BASIC_INFO basic = {};
        basic.CreationTime.QuadPart = wanted.written - 1'000'000'000;
        basic.LastWriteTime.QuadPart = wanted.written;
        basic.FileAttributes = wanted.attributes != 0 ? wanted.attributes : FILE_ATTRIBUTE_NORMAL;
        check(handle &&
                  ::SetFileInformationByHandle(handle.get(), FileBasicInfo, &basic, sizeof basic),
              "SetFileInformationByHandle", full);
    }
}
