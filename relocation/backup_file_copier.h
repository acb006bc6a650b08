// Copies one item (file, link, or what belongs to a directory itself) with everything it has.
// Streams go through the backup API where the system has it, otherwise through ordinary calls.
// Used by one thread for one tree copy; the walk is RunTime::Directory's.
#pragma once

#include "relocation/backup_stream.h"
#include "relocation/copy_privileges.h"
#include "relocation/copy_report.h"
#include "relocation/stream_type.h"
#include "runtime/auto_handle.h"
#include "runtime/files/file.h"
#include "runtime/files/volume_kind.h"
#include "security/descriptor_bytes.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

class BackupFileCopier {
public:
    // What an item created in a directory gets from it by itself.
    struct TargetDirectory {
        DWORD attributes = 0;                    // compressed, encrypted
        RunTime::DescriptorBytes fileDescriptor; // of a new file; empty: not known yet
    };

    // source, target  roots of the copy, in long form; their volumes are asked what they can hold.
    // Enables the privileges that the copy uses for the life of the object.
    BackupFileCopier(const std::wstring& source, const std::wstring& target, StreamType streams,
                     bool copyOwner, CopyReport& report);

    // Whether source and target may lie on one volume: copies of volumes look like it, too.
    bool mayShareVolume() const noexcept { return sourceVolume_.serial == targetVolume_.serial; }

    // Copies a file, or a link of either kind (as a link), to a new item of the given name. created
    // tells whether the target has an item of ours afterwards, also when an exception is thrown: a
    // half-copied one is removed again if that is possible. ERROR_FILE_EXISTS for a name that is
    // taken. Paths are in long form, and both parents are held open by the caller.
    void copyFile(const std::wstring& source, const RunTime::FileInformation& listed,
                  const std::wstring& target, TargetDirectory& parent, bool& created);

    // Opens a directory for a copy out of it: listing and streams. It cannot be renamed or removed
    // while it is open. Throws when it is a link, or anything but what entry says.
    RunTime::AutoHandle openSource(const std::wstring& path, const RunTime::FileInformation& entry);
    // Opens a directory of the target in the same way; a new one for writing to it, too.
    RunTime::AutoHandle openTarget(const std::wstring& path, bool isNew);
    // Gives a new directory what belongs to itself, but for attributes and times, and says in made
    // what its files will get from it. parent is the directory that it lies in.
    void copyDirectory(HANDLE source, HANDLE target, const std::wstring& sourcePath,
                       const std::wstring& targetPath, const RunTime::FileInformation& entry,
                       const TargetDirectory& parent, TargetDirectory& made);
    // Attributes and times, after everything below has been made.
    void finishDirectory(HANDLE target, const std::wstring& path,
                         const RunTime::FileInformation& entry, bool isVolumeRoot);

    // Reports what shows at the end only: hard links to names outside the tree.
    void finish();

    // bytes of the current file done so far; for large files
    std::function<void(std::int64_t)>& onBytes() { return streamCopy_.onBytes; }

private:
    struct LinkedFile {
        std::wstring target; // the first name of the file in the target
        std::wstring source;
        DWORD namesLeft = 0;      // still to be met
        std::uint64_t fileId = 0; // of the target's file
    };
    struct Opened {
        RunTime::AutoHandle source;
        FILE_STANDARD_INFO size = {};
    };

    void copyLink(const std::wstring& source, const RunTime::FileInformation& entry,
                  const std::wstring& target, TargetDirectory& parent, bool& created);
    void copyEncrypted(const std::wstring& source, const RunTime::FileInformation& entry,
                       const std::wstring& target, bool& created);
    Opened openFile(const std::wstring& path, const RunTime::FileInformation& entry);
    RunTime::AutoHandle openKnown(const std::wstring& path, const RunTime::FileInformation& entry,
                                  DWORD access, DWORD share);
    RunTime::AutoHandle createFile(const std::wstring& path, const TargetDirectory& parent);
    bool makeHardLink(const std::wstring& source, std::uint64_t sourceId,
                      const std::wstring& target);
    // Whether the file was written to since entry was read; entry is brought up to date.
    bool changedSince(const Opened& opened, const std::wstring& path,
                      RunTime::FileInformation& entry);
    void prepare(HANDLE target, const std::wstring& source, const RunTime::FileInformation& entry,
                 const TargetDirectory& parent);
    // parent is null for what is not a plain file.
    void copyStreams(HANDLE source, HANDLE target, const std::wstring& sourcePath,
                     const std::wstring& targetPath, const RunTime::FileInformation& entry,
                     std::int64_t size, TargetDirectory* parent);
    void copyByOrdinaryCalls(HANDLE source, HANDLE target, const std::wstring& sourcePath,
                             const std::wstring& targetPath, const RunTime::FileInformation& entry,
                             std::int64_t size, TargetDirectory* parent);
    void writeSecurity(HANDLE target, const std::wstring& path); // of descriptor_
    void reportDropped(const BackupStreamCopy::Found& found, const std::wstring& path);

    StreamType asked_;
    StreamType kept_; // of those asked for, what both volumes can do
    bool copyOwner_;
    CopyReport& report_;
    CopyPrivileges privileges_;
    bool audit_ = false;   // audit lists can be read and written
    bool refused_ = false; // the backup API is not to be had here
    RunTime::VolumeKind sourceVolume_;
    RunTime::VolumeKind targetVolume_;
    DWORD sourceAccess_ = 0;
    DWORD targetAccess_ = 0;
    std::map<std::uint64_t, LinkedFile> linked_; // by the source's file id
    BackupStreamCopy streamCopy_;
    RunTime::DescriptorBytes descriptor_; // used again for each item
};
