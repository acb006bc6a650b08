#include "relocation/item_compare.h"

#include "relocation/reparse_point.h"
#include "relocation/stream_list.h"
#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"

#include <algorithm>
#include <cstring>
#include <sddl.h>

namespace {

using RunTime::AutoHandle;

constexpr DWORD bufferBytes = 1024 * 1024; // a multiple of every sector size

// What no copy can set or should keep: the archive bit is set by every write.
constexpr DWORD uncomparableAttributes =
    FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_REPARSE_POINT;

struct AttributeName {
    DWORD attribute;
    const wchar_t* name;
};
constexpr AttributeName attributeNames[] = {
    {FILE_ATTRIBUTE_READONLY, L"read-only"},  {FILE_ATTRIBUTE_HIDDEN, L"hidden"},
    {FILE_ATTRIBUTE_SYSTEM, L"system"},       {FILE_ATTRIBUTE_TEMPORARY, L"temporary"},
    {FILE_ATTRIBUTE_SPARSE_FILE, L"sparse"},  {FILE_ATTRIBUTE_COMPRESSED, L"compressed"},
    {FILE_ATTRIBUTE_OFFLINE, L"offline"},     {FILE_ATTRIBUTE_NOT_CONTENT_INDEXED, L"not indexed"},
    {FILE_ATTRIBUTE_ENCRYPTED, L"encrypted"},
};

std::wstring attributesText(DWORD attributes) {
    std::wstring text;
    for (const AttributeName& row : attributeNames) {
        if ((attributes & row.attribute) != 0) {
            text += (text.empty() ? L"" : L", ") + std::wstring(row.name);
            attributes &= ~row.attribute;
        }
    }
    if (attributes != 0) {
        text += formatString(text.empty() ? L"0x%lx" : L", 0x%lx", attributes);
    }
    return text.empty() ? L"none" : text;
}

std::wstring timeText(const LARGE_INTEGER& time) {
    FILETIME file{time.LowPart, static_cast<DWORD>(time.HighPart)};
    SYSTEMTIME parts{};
    if (!::FileTimeToSystemTime(&file, &parts)) {
        return L"an invalid time";
    }
    return formatString(L"%04d-%02d-%02d %02d:%02d:%02d.%07lld UTC", parts.wYear, parts.wMonth,
                        parts.wDay, parts.wHour, parts.wMinute, parts.wSecond,
                        static_cast<long long>(time.QuadPart % 10000000));
}

bool getDescriptor(HANDLE item, SECURITY_INFORMATION parts, std::vector<unsigned char>& buffer) {
    if (buffer.empty()) {
        buffer.resize(4096);
    }
    for (;;) {
        DWORD needed = 0;
        if (::GetKernelObjectSecurity(item, parts, buffer.data(), static_cast<DWORD>(buffer.size()),
                                      &needed)) {
            return true;
        }
        if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.size()) {
            return false;
        }
        buffer.resize(needed);
    }
}

std::wstring sidText(PSID sid) {
    if (sid == nullptr) {
        return L"nobody";
    }
    LPWSTR text = nullptr;
    if (!::ConvertSidToStringSidW(sid, &text)) {
        return L"an invalid account";
    }
    const std::wstring result = text;
    ::LocalFree(text);
    return result;
}

std::wstring sddl(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION part) {
    LPWSTR text = nullptr;
    if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, part,
                                                                &text, nullptr)) {
        return L"(unreadable)";
    }
    const std::wstring result = text;
    ::LocalFree(text);
    return result;
}

// Null and empty lists differ: the first allows everything, the second nothing.
struct AclView {
    bool present = false;
    PACL list = nullptr;
    SECURITY_DESCRIPTOR_CONTROL control = 0;

    bool operator==(const AclView& other) const {
        if (present != other.present || control != other.control ||
            (list == nullptr) != (other.list == nullptr)) {
            return false;
        }
        return list == nullptr || (list->AclSize == other.list->AclSize &&
                                   std::memcmp(list, other.list, list->AclSize) == 0);
    }
};

AclView viewOf(PSECURITY_DESCRIPTOR descriptor, bool audit) {
    AclView view;
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    DWORD revision = 0;
    const BOOL got =
        audit ? ::GetSecurityDescriptorSacl(descriptor, &present, &view.list, &defaulted)
              : ::GetSecurityDescriptorDacl(descriptor, &present, &view.list, &defaulted);
    if (!got || !::GetSecurityDescriptorControl(descriptor, &view.control, &revision)) {
        return {};
    }
    view.present = present != FALSE;
    view.list = view.present ? view.list : nullptr;
    view.control &= audit ? SE_SACL_PROTECTED | SE_SACL_AUTO_INHERITED
                          : SE_DACL_PROTECTED | SE_DACL_AUTO_INHERITED;
    return view;
}

// Fills the buffer, or as much of it as the file still has. False, with the last error, on failure.
bool readBlock(HANDLE file, unsigned char* buffer, DWORD& length) {
    length = 0;
    while (length < bufferBytes) {
        DWORD part = 0;
        if (!::ReadFile(file, buffer + length, bufferBytes - length, &part, nullptr)) {
            return ::GetLastError() == ERROR_HANDLE_EOF;
        }
        length += part;
        // Past the cache only whole sectors can be asked for: a part of one is the end of the file.
        if (part == 0 || length % 512 != 0) {
            return true;
        }
    }
    return true;
}

// Opens a named stream for reading. The type is left off: not every system opens it by that.
AutoHandle openStream(const std::wstring& path, const std::wstring& name) {
    constexpr std::wstring_view type = L":$DATA";
    std::wstring full = path + name;
    if (full.ends_with(type)) {
        full.resize(full.size() - type.size());
    }
    return RunTime::openExisting(full, FILE_READ_DATA | SYNCHRONIZE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_FLAG_SEQUENTIAL_SCAN);
}

} // namespace

std::wstring systemText(DWORD code) {
    std::wstring text = vosexception(code, nullptr, {L"", "", 0}).message();
    std::replace(text.begin(), text.end(), L'\n', L' ');
    std::erase(text, L'\r');
    return text;
}

void ItemComparison::setUp(const TreeComparison::Options& options, const Settings& settings,
                           std::function<void(std::int64_t bytes)> read) {
    options_ = &options;
    settings_ = settings;
    read_ = std::move(read);
    const auto allocate = [] {
        auto* memory = static_cast<unsigned char*>(
            ::VirtualAlloc(nullptr, bufferBytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        if (memory == nullptr) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to allocate memory", code,
                        {L"", "ItemComparison::setUp", __LINE__});
        }
        return Buffer(memory);
    };
    firstBuffer_ = allocate();
    secondBuffer_ = allocate();
}

DWORD ItemComparison::readFlags(bool isSecond) const {
    using Uncached = TreeComparison::Uncached;
    const bool uncached = options_->uncached == Uncached::Both ||
                          (isSecond && options_->uncached == Uncached::Second);
    return uncached ? FILE_FLAG_NO_BUFFERING : FILE_FLAG_SEQUENTIAL_SCAN;
}

void ItemComparison::compareData(HANDLE first, HANDLE second, const Report& report) {
    FILE_STANDARD_INFO firstSize{};
    FILE_STANDARD_INFO secondSize{};
    if (!::GetFileInformationByHandleEx(first, FileStandardInfo, &firstSize, sizeof(firstSize)) ||
        !::GetFileInformationByHandleEx(second, FileStandardInfo, &secondSize,
                                        sizeof(secondSize))) {
        report(DifferenceKind::Unreadable, systemText(::GetLastError()));
        return;
    }
    if (firstSize.EndOfFile.QuadPart != secondSize.EndOfFile.QuadPart) {
        if (options_->sizes) {
            report(DifferenceKind::Size,
                   formatString(L"%lld bytes here, %lld bytes there", firstSize.EndOfFile.QuadPart,
                                secondSize.EndOfFile.QuadPart));
        }
        return;
    }
    if (!options_->contents || firstSize.EndOfFile.QuadPart == 0) {
        return;
    }
    std::wstring detail;
    const Read outcome = compareBytes(first, second, detail);
    if (outcome != Read::Equal) {
        report(outcome == Read::Different ? DifferenceKind::Contents : DifferenceKind::Unreadable,
               detail);
    }
}

ItemComparison::Read ItemComparison::compareBytes(HANDLE first, HANDLE second,
                                                  std::wstring& detail) {
    const unsigned char* const a = firstBuffer_.get();
    const unsigned char* const b = secondBuffer_.get();
    for (std::int64_t offset = 0;;) {
        DWORD lengthA = 0;
        DWORD lengthB = 0;
        if (!readBlock(first, firstBuffer_.get(), lengthA)) {
            const DWORD code = ::GetLastError();
            detail = L"Unable to read the first: " + systemText(code);
            return Read::Failed;
        }
        if (!readBlock(second, secondBuffer_.get(), lengthB)) {
            const DWORD code = ::GetLastError();
            detail = L"Unable to read the second: " + systemText(code);
            return Read::Failed;
        }
        const DWORD length = std::min(lengthA, lengthB);
        if (std::memcmp(a, b, length) != 0) {
            const auto at = std::mismatch(a, a + length, b).first - a;
            detail = formatString(L"first difference at byte %lld", offset + at);
            return Read::Different;
        }
        offset += length;
        read_(length);
        if (lengthA != lengthB) {
            detail = formatString(L"one of them ends at byte %lld", offset);
            return Read::Different;
        }
        if (length < bufferBytes) {
            return Read::Equal;
        }
    }
}

void ItemComparison::compareLinks(HANDLE first, HANDLE second, const Report& report) {
    const std::vector<unsigned char> firstData = readReparsePoint(first);
    const DWORD code = ::GetLastError();
    const std::vector<unsigned char> secondData = readReparsePoint(second);
    if (firstData.empty() || secondData.empty()) {
        report(DifferenceKind::Unreadable,
               L"the link cannot be read as itself: " +
                   systemText(firstData.empty() ? code : ::GetLastError()));
    } else if (firstData != secondData) {
        report(DifferenceKind::Link, L"to " + reparseTarget(firstData) + L" here, to " +
                                         reparseTarget(secondData) + L" there");
    }
}

void ItemComparison::compareStreams(const std::wstring& first, const std::wstring& second,
                                    const Report& report) {
    if (!settings_.streams) {
        return;
    }
    std::vector<StreamEntry> firstList;
    std::vector<StreamEntry> secondList;
    DWORD code = listNamedStreams(first, firstList);
    code = code != ERROR_SUCCESS ? code : listNamedStreams(second, secondList);
    if (code != ERROR_SUCCESS) {
        report(DifferenceKind::Unreadable, L"Unable to list named streams: " + systemText(code));
        return;
    }
    for (const StreamEntry& stream : firstList) {
        const auto twin =
            std::find_if(secondList.begin(), secondList.end(), [&](const StreamEntry& other) {
                return RunTime::equalNames(stream.name, other.name);
            });
        if (twin == secondList.end()) {
            report(DifferenceKind::Stream, stream.name + L" is missing there");
            continue;
        }
        if (twin->size != stream.size) {
            report(DifferenceKind::Stream,
                   formatString(L"%s has %lld bytes here, %lld bytes there", stream.name.c_str(),
                                stream.size, twin->size));
        } else if (options_->contents && stream.size != 0) {
            std::wstring detail;
            const AutoHandle a = openStream(first, stream.name);
            const AutoHandle b = a ? openStream(second, twin->name) : AutoHandle();
            if (!a || !b) {
                const DWORD failure = ::GetLastError();
                report(DifferenceKind::Unreadable,
                       L"Unable to open stream " + stream.name + L": " + systemText(failure));
            } else if (compareBytes(a.get(), b.get(), detail) != Read::Equal) {
                report(DifferenceKind::Stream, stream.name + L": " + detail);
            }
        }
        secondList.erase(twin);
    }
    if (options_->onlyInSecond || options_->directoryProperties) {
        for (const StreamEntry& stream : secondList) {
            report(DifferenceKind::Stream, stream.name + L" is missing here");
        }
    }
}

void ItemComparison::compareProperties(HANDLE first, HANDLE second, const Report& report) {
    FILE_BASIC_INFO a{};
    FILE_BASIC_INFO b{};
    if (!::GetFileInformationByHandleEx(first, FileBasicInfo, &a, sizeof(a)) ||
        !::GetFileInformationByHandleEx(second, FileBasicInfo, &b, sizeof(b))) {
        report(DifferenceKind::Unreadable, systemText(::GetLastError()));
        return;
    }
    const DWORD compared = ~(uncomparableAttributes | options_->ignoredAttributes);
    if (options_->attributes && ((a.FileAttributes ^ b.FileAttributes) & compared) != 0) {
        const DWORD shown = compared & ~DWORD{FILE_ATTRIBUTE_DIRECTORY};
        report(DifferenceKind::Attributes, attributesText(a.FileAttributes & shown) + L" here, " +
                                               attributesText(b.FileAttributes & shown) +
                                               L" there");
    }
    if (options_->times) {
        const auto compareTime = [&](const wchar_t* name, const LARGE_INTEGER& x,
                                     const LARGE_INTEGER& y) {
            if (x.QuadPart != y.QuadPart) {
                report(DifferenceKind::Times, std::wstring(name) + L" " + timeText(x) + L" here, " +
                                                  timeText(y) + L" there");
            }
        };
        compareTime(L"created", a.CreationTime, b.CreationTime);
        compareTime(L"written", a.LastWriteTime, b.LastWriteTime);
    }
    compareSecurity(first, second, report);
}

void ItemComparison::compareSecurity(HANDLE first, HANDLE second, const Report& report) {
    constexpr SECURITY_INFORMATION ownership =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION;
    const SECURITY_INFORMATION parts =
        (options_->security ? DACL_SECURITY_INFORMATION : 0) | (options_->owner ? ownership : 0);
    if (parts == 0) {
        return;
    }
    if (!getDescriptor(first, parts, firstDescriptor_) ||
        !getDescriptor(second, parts, secondDescriptor_)) {
        const DWORD code = ::GetLastError();
        report(DifferenceKind::Unreadable, L"Unable to read the permissions: " + systemText(code));
        return;
    }
    PSECURITY_DESCRIPTOR a = firstDescriptor_.data();
    PSECURITY_DESCRIPTOR b = secondDescriptor_.data();
    if (options_->security && !(viewOf(a, false) == viewOf(b, false))) {
        report(DifferenceKind::Permissions, sddl(a, DACL_SECURITY_INFORMATION) + L" here, " +
                                                sddl(b, DACL_SECURITY_INFORMATION) + L" there");
    }
    if (options_->owner) {
        const auto compareSid = [&](const wchar_t* name, auto get) {
            PSID x = nullptr;
            PSID y = nullptr;
            BOOL defaulted = FALSE;
            if (!get(a, &x, &defaulted) || !get(b, &y, &defaulted)) {
                return;
            }
            if ((x == nullptr) != (y == nullptr) || (x != nullptr && !::EqualSid(x, y))) {
                report(DifferenceKind::Owner, std::wstring(name) + L" " + sidText(x) + L" here, " +
                                                  sidText(y) + L" there");
            }
        };
        compareSid(L"owner", ::GetSecurityDescriptorOwner);
        compareSid(L"group", ::GetSecurityDescriptorGroup);
    }
    // A handle opened for the audit list gives it; where the file system has none, both fail.
    if (settings_.audit && getDescriptor(first, SACL_SECURITY_INFORMATION, firstDescriptor_) &&
        getDescriptor(second, SACL_SECURITY_INFORMATION, secondDescriptor_) &&
        !(viewOf(firstDescriptor_.data(), true) == viewOf(secondDescriptor_.data(), true))) {
        report(DifferenceKind::Audit,
               sddl(firstDescriptor_.data(), SACL_SECURITY_INFORMATION) + L" here, " +
                   sddl(secondDescriptor_.data(), SACL_SECURITY_INFORMATION) + L" there");
    }
}
