#include "relocation/backup_file_copier.h"

#include "relocation/encrypted_copy.h"
#include "relocation/ordinary_stream_copy.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <winioctl.h>

using RunTime::AutoHandle;
using RunTime::fileIdOf;
using RunTime::FileInformation;
using RunTime::throwForPath;

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr DWORD shareNoDelete = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr int changedTries = 3; // copies of a file that changes under our hands

// What FILE_BASIC_INFO can set; the rest has calls of its own or cannot be chosen.
constexpr DWORD settableAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                     FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE |
                                     FILE_ATTRIBUTE_TEMPORARY | FILE_ATTRIBUTE_OFFLINE |
                                     FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

bool isForeignReparse(const FileInformation& entry) {
    return (entry.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && !entry.isLink();
}

StreamType without(StreamType set, StreamType flag) {
    return static_cast<StreamType>(static_cast<std::int32_t>(set) &
                                   ~static_cast<std::int32_t>(flag));
}

void setTimesAndAttributes(HANDLE target, const std::wstring& path, const FileInformation& entry,
                           DWORD mask) {
    FILE_BASIC_INFO basic = {};
    basic.CreationTime.QuadPart = entry.creationTime;
    basic.LastAccessTime.QuadPart = entry.lastAccessTime;
    basic.LastWriteTime.QuadPart = entry.lastWriteTime;
    basic.ChangeTime.QuadPart = entry.changeTime;
    basic.FileAttributes = entry.attributes & settableAttributes & mask;
    if (basic.FileAttributes == 0) {
        basic.FileAttributes = FILE_ATTRIBUTE_NORMAL; // 0 would mean "no change"
    }
    if (!::SetFileInformationByHandle(target, FileBasicInfo, &basic, sizeof(basic))) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to set attributes (%s)", path, code, "BackupFileCopier::setTimes",
                     __LINE__);
    }
}

// Deletes what was made of an item that cannot be finished, and says whether that worked.
class PartialItem {
public:
    PartialItem(AutoHandle& handle, bool& created) : handle_(handle), created_(created) {
        created_ = true;
    }
    ~PartialItem() {
        if (!kept_) {
            created_ = RunTime::deleteByHandle(handle_.get()) != ERROR_SUCCESS;
        }
    }
    PartialItem(const PartialItem&) = delete;
    PartialItem& operator=(const PartialItem&) = delete;
    void keep() noexcept { kept_ = true; }

private:
    AutoHandle& handle_;
    bool& created_;
    bool kept_ = false;
};

} // namespace

BackupFileCopier::BackupFileCopier(const std::wstring& source, const std::wstring& target,
                                   StreamType streams, bool copyOwner, CopyReport& report)
    : asked_(streams), kept_(streams), copyOwner_(copyOwner), report_(report),
      sourceVolume_(RunTime::volumeKind(source)), targetVolume_(RunTime::volumeKind(target)) {
    const struct {
        StreamType kind;
        DWORD flag;
    } needs[] = {
        {StreamType::AlternateData, FILE_NAMED_STREAMS},
        {StreamType::SecurityData, FILE_PERSISTENT_ACLS},
        {StreamType::EAData, FILE_SUPPORTS_EXTENDED_ATTRIBUTES},
        {StreamType::ObjectId, FILE_SUPPORTS_OBJECT_IDS},
        {StreamType::ReparseData, FILE_SUPPORTS_REPARSE_POINTS},
    };
    for (const auto& need : needs) {
        if ((targetVolume_.flags & need.flag) == 0) {
            kept_ = without(kept_, need.kind);
        }
    }
    const bool security =
        has(kept_, StreamType::SecurityData) && (sourceVolume_.flags & FILE_PERSISTENT_ACLS) != 0;
    if (!security) {
        if (has(asked_, StreamType::SecurityData) && !has(kept_, StreamType::SecurityData) &&
            (sourceVolume_.flags & FILE_PERSISTENT_ACLS) != 0) {
            report_.add(CopyLoss::Security, source);
        }
        kept_ = without(kept_, StreamType::SecurityData);
    }
    audit_ = security && privileges_.holds(SE_SECURITY_NAME);
    if (security && !audit_) {
        report_.add(CopyLoss::AuditList, source);
    }
    const DWORD audit = audit_ ? ACCESS_SYSTEM_SECURITY : 0;
    const DWORD owner = security && (copyOwner_ || privileges_.holds(SE_RESTORE_NAME))
                            ? static_cast<DWORD>(WRITE_OWNER)
                            : 0;
    sourceAccess_ = GENERIC_READ | audit;
    targetAccess_ = GENERIC_READ | GENERIC_WRITE | audit | owner |
                    (security ? static_cast<DWORD>(WRITE_DAC) : 0);
}

void BackupFileCopier::copyFile(const std::wstring& source, const FileInformation& listed,
                                const std::wstring& target, TargetDirectory& parent,
                                bool& created) {
    created = false;
    if (listed.isLink()) {
        copyLink(source, listed, target, parent, created);
        return;
    }
    if (listed.attributes & FILE_ATTRIBUTE_ENCRYPTED) {
        copyEncrypted(source, listed, target, created);
        return;
    }
    FileInformation entry = listed;
    for (int attempt = 1;; ++attempt) {
        const Opened opened = openFile(source, entry);
        const bool linked = opened.size.NumberOfLinks > 1;
        const std::uint64_t sourceId =
            !linked ? 0 : (entry.fileId != 0 ? entry.fileId : fileIdOf(opened.source.get()));
        if (linked && makeHardLink(source, sourceId, target)) {
            created = true;
            return;
        }
        AutoHandle file = createFile(target, parent);
        PartialItem partial(file, created);
        prepare(file.get(), source, entry, parent);
        copyStreams(opened.source.get(), file.get(), source, target, entry,
                    opened.size.EndOfFile.QuadPart, &parent);
        if (changedSince(opened, source, entry)) {
            if (attempt < changedTries) {
                continue; // what was made of it goes, and it is copied again
            }
            report_.add(CopyLoss::ChangedMeanwhile, source);
        }
        setTimesAndAttributes(file.get(), target, entry, ~0u);
        if (linked && sourceId != 0) {
            linked_[sourceId] = {target, source, opened.size.NumberOfLinks - 1,
                                 fileIdOf(file.get())};
        }
        partial.keep();
        return;
    }
}

void BackupFileCopier::copyLink(const std::wstring& source, const FileInformation& entry,
                                const std::wstring& target, TargetDirectory& parent,
                                bool& created) {
    if (!has(asked_, StreamType::ReparseData)) {
        report_.add(CopyLoss::Link, source);
        return;
    }
    if (entry.reparseTag == 0) { // neither a link that can be read, nor anything to be followed
        throwForPath(L"Unable to read link (%s)", source, ERROR_NOT_A_REPARSE_POINT,
                     "BackupFileCopier::copyLink", __LINE__);
    }
    if (!has(kept_, StreamType::ReparseData)) {
        throwForPath(L"Unable to create link (%s)", target, ERROR_NOT_SUPPORTED,
                     "BackupFileCopier::copyLink", __LINE__);
    }
    const AutoHandle link = openKnown(source, entry, sourceAccess_, shareAll);
    if (entry.isDirectory()) {
        if (!RunTime::createDirectory(target)) {
            throwForPath(L"Unable to create directory (%s)", target, ERROR_ALREADY_EXISTS,
                         "BackupFileCopier::copyLink", __LINE__);
        }
        created = true;
    }
    AutoHandle item = entry.isDirectory()
                          ? RunTime::openExisting(target, targetAccess_ | DELETE, shareNoDelete)
                          : createFile(target, parent);
    if (!item) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to open (%s)", target, code, "BackupFileCopier::copyLink", __LINE__);
    }
    PartialItem partial(item, created);
    copyStreams(link.get(), item.get(), source, target, entry, 0, nullptr);
    setTimesAndAttributes(item.get(), target, entry, ~0u);
    partial.keep();
}

AutoHandle BackupFileCopier::openSource(const std::wstring& path, const FileInformation& entry) {
    return openKnown(path, entry, sourceAccess_, shareNoDelete);
}

AutoHandle BackupFileCopier::openTarget(const std::wstring& path, bool isNew) {
    const DWORD access = isNew ? targetAccess_ : FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES;
    AutoHandle directory = RunTime::openExisting(path, access, shareNoDelete);
    if (!directory) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to open directory (%s)", path, code, "BackupFileCopier::openTarget",
                     __LINE__);
    }
    FileInformation kind;
    if (const DWORD code = RunTime::readKind(directory.get(), kind)) {
        throwForPath(L"Unable to get attributes (%s)", path, code, "BackupFileCopier::openTarget",
                     __LINE__);
    }
    if (!kind.isDirectory() || (kind.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        throwForPath(L"Unable to copy into link (%s)", path, ERROR_DIRECTORY,
                     "BackupFileCopier::openTarget", __LINE__);
    }
    return directory;
}

void BackupFileCopier::copyDirectory(HANDLE source, HANDLE target, const std::wstring& sourcePath,
                                     const std::wstring& targetPath, const FileInformation& entry,
                                     const TargetDirectory& parent, TargetDirectory& made) {
    prepare(target, sourcePath, entry, parent);
    made.attributes = entry.attributes & (FILE_ATTRIBUTE_COMPRESSED | FILE_ATTRIBUTE_ENCRYPTED);
    copyStreams(source, target, sourcePath, targetPath, entry, 0, nullptr);
}

void BackupFileCopier::finishDirectory(HANDLE target, const std::wstring& path,
                                       const FileInformation& entry, bool isVolumeRoot) {
    // A root is hidden and a system directory on every volume; its copy is not.
    setTimesAndAttributes(target, path, entry,
                          isVolumeRoot ? ~(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM) : ~0u);
}

void BackupFileCopier::finish() {
    for (const auto& [id, file] : linked_) {
        report_.add(CopyLoss::HardLink, file.source); // its other names lie outside the tree
    }
    linked_.clear();
}

BackupFileCopier::Opened BackupFileCopier::openFile(const std::wstring& path,
                                                    const FileInformation& entry) {
    Opened opened;
    opened.source = openKnown(path, entry, sourceAccess_, shareAll);
    if (!::GetFileInformationByHandleEx(opened.source.get(), FileStandardInfo, &opened.size,
                                        sizeof(opened.size))) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to get size (%s)", path, code, "BackupFileCopier::openFile",
                     __LINE__);
    }
    if (opened.size.Directory) {
        throwForPath(L"Unable to open file (%s)", path, ERROR_DIRECTORY,
                     "BackupFileCopier::openFile", __LINE__);
    }
    return opened;
}

AutoHandle BackupFileCopier::openKnown(const std::wstring& path, const FileInformation& entry,
                                       DWORD access, DWORD share) {
    // The data of a file with a foreign tag (deduplicated, cloud) is only seen by an open that lets
    // the tag act. That open would follow a link put in its place, so the file's id is compared.
    const bool foreign = isForeignReparse(entry);
    AutoHandle handle;
    for (RunTime::Retry retry(RunTime::defaultTryCount);;) {
        handle = foreign
                     ? AutoHandle(::CreateFileW(path.c_str(), access, share, nullptr, OPEN_EXISTING,
                                                FILE_FLAG_BACKUP_SEMANTICS, nullptr))
                     : RunTime::openExisting(path, access, share, FILE_FLAG_SEQUENTIAL_SCAN);
        if (handle) {
            break;
        }
        const DWORD code = ::GetLastError();
        if ((code == ERROR_SHARING_VIOLATION || code == ERROR_ACCESS_DENIED ||
             code == ERROR_PRIVILEGE_NOT_HELD) &&
            access != GENERIC_READ) {
            access = GENERIC_READ; // less is granted where all is refused
            continue;
        }
        if (code == ERROR_ACCESS_DENIED || !retry.again(code)) {
            throwForPath(L"Unable to open (%s)", path, code, "BackupFileCopier::openKnown",
                         __LINE__);
        }
    }
    if (foreign) {
        if (entry.fileId == 0 || fileIdOf(handle.get()) != entry.fileId) {
            throwForPath(L"Unable to open (%s), which is not what was listed", path,
                         ERROR_REPARSE_TAG_MISMATCH, "BackupFileCopier::openKnown", __LINE__);
        }
    } else if (entry.isDirectory() || entry.isLink()) {
        FileInformation kind;
        if (const DWORD code = RunTime::readKind(handle.get(), kind)) {
            throwForPath(L"Unable to get attributes (%s)", path, code,
                         "BackupFileCopier::openKnown", __LINE__);
        }
        constexpr DWORD kinds = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
        if ((kind.attributes & kinds) != (entry.attributes & kinds) ||
            (entry.isLink() && kind.reparseTag != entry.reparseTag)) {
            throwForPath(L"Unable to open (%s), which is not what was listed", path,
                         ERROR_REPARSE_TAG_MISMATCH, "BackupFileCopier::openKnown", __LINE__);
        }
    }
    return handle;
}

AutoHandle BackupFileCopier::createFile(const std::wstring& path, const TargetDirectory& parent) {
    // A file born in an encrypted directory would be encrypted, but for a system file.
    const DWORD attributes = parent.attributes & FILE_ATTRIBUTE_ENCRYPTED ? FILE_ATTRIBUTE_SYSTEM
                                                                          : FILE_ATTRIBUTE_NORMAL;
    // Not shared: nobody reads it before its security is set.
    AutoHandle file(::CreateFileW(path.c_str(), targetAccess_ | DELETE, 0, nullptr, CREATE_NEW,
                                  attributes | FILE_FLAG_BACKUP_SEMANTICS |
                                      FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_SEQUENTIAL_SCAN,
                                  nullptr));
    if (!file) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to create (%s)", path, code, "BackupFileCopier::createFile",
                     __LINE__);
    }
    return file;
}

bool BackupFileCopier::makeHardLink(const std::wstring& source, std::uint64_t sourceId,
                                    const std::wstring& target) {
    const auto known = linked_.find(sourceId);
    if (known == linked_.end()) {
        return false;
    }
    const LinkedFile file = known->second;
    if (--known->second.namesLeft == 0) {
        linked_.erase(known);
    }
    if (!::CreateHardLinkW(target.c_str(), file.target.c_str(), nullptr)) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_ALREADY_EXISTS || code == ERROR_FILE_EXISTS) {
            throwForPath(L"Unable to create (%s)", target, code, "BackupFileCopier::makeHardLink",
                         __LINE__);
        }
        report_.add(CopyLoss::HardLink, source); // too many names, or a file system without them
        return false;
    }
    // The first name's directory is not held open any more, so what was linked is looked at.
    const AutoHandle made = RunTime::openExisting(target, FILE_READ_ATTRIBUTES, shareAll);
    if (made && file.fileId != 0 && fileIdOf(made.get()) == file.fileId) {
        return true;
    }
    RunTime::deleteFile(target);
    report_.add(CopyLoss::HardLink, source);
    return false;
}

bool BackupFileCopier::changedSince(const Opened& opened, const std::wstring& path,
                                    FileInformation& entry) {
    FILE_BASIC_INFO basic;
    FILE_STANDARD_INFO size;
    if (!::GetFileInformationByHandleEx(opened.source.get(), FileBasicInfo, &basic,
                                        sizeof(basic)) ||
        !::GetFileInformationByHandleEx(opened.source.get(), FileStandardInfo, &size,
                                        sizeof(size))) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to get times (%s)", path, code, "BackupFileCopier::changedSince",
                     __LINE__);
    }
    if ((basic.FileAttributes ^ entry.attributes) & FILE_ATTRIBUTE_REPARSE_POINT &&
        !isForeignReparse(entry)) {
        throwForPath(L"Unable to copy (%s), which is not what was listed", path,
                     ERROR_REPARSE_TAG_MISMATCH, "BackupFileCopier::changedSince", __LINE__);
    }
    const bool changed = basic.LastWriteTime.QuadPart != entry.lastWriteTime ||
                         size.EndOfFile.QuadPart != opened.size.EndOfFile.QuadPart;
    entry.lastWriteTime = basic.LastWriteTime.QuadPart;
    entry.size = size.EndOfFile.QuadPart;
    return changed;
}

void BackupFileCopier::prepare(HANDLE target, const std::wstring& source,
                               const FileInformation& entry, const TargetDirectory& parent) {
    DWORD got = 0;
    const bool compressed = (entry.attributes & FILE_ATTRIBUTE_COMPRESSED) != 0;
    if (compressed != ((parent.attributes & FILE_ATTRIBUTE_COMPRESSED) != 0)) {
        USHORT format = compressed ? COMPRESSION_FORMAT_DEFAULT : COMPRESSION_FORMAT_NONE;
        if (!::DeviceIoControl(target, FSCTL_SET_COMPRESSION, &format, sizeof(format), nullptr, 0,
                               &got, nullptr) &&
            compressed) {
            report_.add(CopyLoss::Compression, source);
        }
    }
    if ((entry.attributes & FILE_ATTRIBUTE_SPARSE_FILE) != 0 && !entry.isDirectory() &&
        !::DeviceIoControl(target, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &got, nullptr)) {
        report_.add(CopyLoss::Sparse, source);
    }
}

void BackupFileCopier::copyStreams(HANDLE source, HANDLE target, const std::wstring& sourcePath,
                                   const std::wstring& targetPath, const FileInformation& entry,
                                   std::int64_t size, TargetDirectory* parent) {
    const bool foreign = isForeignReparse(entry);
    if (foreign) {
        report_.add(CopyLoss::ReparseTag, sourcePath);
    }
    if (!refused_) {
        BackupStreamCopy::Found found;
        found.security.swap(descriptor_); // its capacity is used again
        found.security.clear();
        const StreamType keep = foreign ? without(kept_, StreamType::ReparseData) : kept_;
        if (streamCopy_.run(source, target, keep, found)) {
            if (found.sparse) { // holes at the end are not written
                FILE_END_OF_FILE_INFO end;
                end.EndOfFile.QuadPart = size;
                if (!::SetFileInformationByHandle(target, FileEndOfFileInfo, &end, sizeof(end))) {
                    const DWORD code = ::GetLastError();
                    throwForPath(L"Unable to set size (%s)", targetPath, code,
                                 "BackupFileCopier::copyStreams", __LINE__);
                }
            }
            reportDropped(found, sourcePath);
            if (!found.objectId.empty()) {
                DWORD got = 0;
                if (!::DeviceIoControl(target, FSCTL_SET_OBJECT_ID, found.objectId.data(),
                                       static_cast<DWORD>(found.objectId.size()), nullptr, 0, &got,
                                       nullptr)) {
                    report_.add(CopyLoss::ObjectId, sourcePath); // another file has it here
                }
            }
            descriptor_.swap(found.security);
            if (!descriptor_.empty()) {
                writeSecurity(target, targetPath);
            }
            return;
        }
        refused_ = true;
        LogManager::getInstance().vAddLog(
            LogType::Information,
            L"The backup API is not available here; files are copied by ordinary calls");
    }
    copyByOrdinaryCalls(source, target, sourcePath, targetPath, entry, size, parent);
}

void BackupFileCopier::copyByOrdinaryCalls(HANDLE source, HANDLE target,
                                           const std::wstring& sourcePath,
                                           const std::wstring& targetPath,
                                           const FileInformation& entry, std::int64_t size,
                                           TargetDirectory* parent) {
    OrdinaryStreamCopy::Item item{source, target, sourcePath, targetPath, entry, size};
    item.keep = kept_;
    item.namedStreams =
        has(asked_, StreamType::AlternateData) && (sourceVolume_.flags & FILE_NAMED_STREAMS) != 0;
    OrdinaryStreamCopy(streamCopy_, report_).run(item);
    if (has(kept_, StreamType::SecurityData)) {
        DWORD code = RunTime::readDescriptor(source, audit_, descriptor_);
        if (code != ERROR_SUCCESS && audit_) { // without the right to read the audit list
            code = RunTime::readDescriptor(source, false, descriptor_);
        }
        if (code != ERROR_SUCCESS) {
            throwForPath(L"Unable to read security (%s)", sourcePath, code,
                         "BackupFileCopier::copyByOrdinaryCalls", __LINE__);
        }
        if (parent != nullptr) {
            // Most files have what a new file in their directory gets by itself.
            if (parent->fileDescriptor.empty()) {
                RunTime::readDescriptor(target, audit_, parent->fileDescriptor);
            }
            if (RunTime::sameDescriptor(parent->fileDescriptor, descriptor_, copyOwner_, audit_)) {
                return;
            }
        }
        writeSecurity(target, targetPath);
    }
}

void BackupFileCopier::copyEncrypted(const std::wstring& source, const FileInformation& entry,
                                     const std::wstring& target, bool& created) {
    if ((targetVolume_.flags & FILE_SUPPORTS_ENCRYPTION) == 0) { // never in clear
        throwForPath(L"Unable to copy encrypted file (%s)", source, ERROR_VOLUME_NOT_SUPPORT_EFS,
                     "BackupFileCopier::copyEncrypted", __LINE__);
    }
    const Opened opened = openFile(source, entry);
    const TargetDirectory plain;
    AutoHandle file = createFile(target, plain); // reserves the name: the import overwrites
    PartialItem partial(file, created);
    file.reset(); // the import opens it itself
    try {
        copyEncryptedFile(source, target, targetVolume_.root);
    } catch (...) {
        file = RunTime::openExisting(target, DELETE | FILE_WRITE_ATTRIBUTES, shareAll);
        throw;
    }
    file = RunTime::openExisting(target, targetAccess_ | DELETE, 0);
    if (!file) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to open (%s)", target, code, "BackupFileCopier::copyEncrypted",
                     __LINE__);
    }
    if (has(kept_, StreamType::SecurityData)) {
        const DWORD code = RunTime::readDescriptor(opened.source.get(), audit_, descriptor_);
        if (code != ERROR_SUCCESS) {
            throwForPath(L"Unable to read security (%s)", source, code,
                         "BackupFileCopier::copyEncrypted", __LINE__);
        }
        writeSecurity(file.get(), target);
    }
    setTimesAndAttributes(file.get(), target, entry, ~0u);
    partial.keep();
}

void BackupFileCopier::writeSecurity(HANDLE target, const std::wstring& path) {
    DWORD code = RunTime::writeDescriptor(target, descriptor_, copyOwner_, audit_);
    if (code != ERROR_SUCCESS && copyOwner_) {
        code = RunTime::writeDescriptor(target, descriptor_, false, audit_);
        if (code == ERROR_SUCCESS) {
            report_.add(CopyLoss::Owner, path);
        }
    }
    if (code != ERROR_SUCCESS) {
        throwForPath(L"Unable to set security (%s)", path, code, "BackupFileCopier::writeSecurity",
                     __LINE__);
    }
}

void BackupFileCopier::reportDropped(const BackupStreamCopy::Found& found,
                                     const std::wstring& path) {
    const struct {
        StreamType kind;
        CopyLoss loss;
    } losses[] = {
        {StreamType::AlternateData, CopyLoss::AlternateStream},
        {StreamType::EAData, CopyLoss::ExtendedAttributes},
        {StreamType::ObjectId, CopyLoss::ObjectId},
    };
    for (const auto& [kind, loss] : losses) {
        if (has(found.dropped, kind) && has(asked_, kind)) {
            report_.add(loss, path);
        }
    }
    if (found.sparseStream) {
        report_.add(CopyLoss::Sparse, path);
    }
    if (found.transactionData) {
        report_.add(CopyLoss::TransactionData, path);
    }
}
