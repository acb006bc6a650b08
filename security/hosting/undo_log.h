// The file in which a repair keeps the descriptors that it replaces: its format, written and read.
//
// A file is a sequence of records (runtime/files/checked_record.h): a head, an item for each
// descriptor, an end. The seed of each checksum is the one before it. Reading takes nothing for
// granted: a file may be damaged, or somebody else's.
#pragma once

#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/checked_record.h"
#include "security/descriptor_bytes.h"
#include "security/hosting/item_identity.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>
#include <windows.h>

namespace HostingSecurity {

struct UndoHead {
    std::wstring root; // of the hosting, in long form
    ItemIdentity identity;
};

struct UndoItem {
    std::wstring path; // below the root; empty for the root itself
    ItemIdentity identity;
    RunTime::DescriptorBytes descriptor; // that it had
};

// Keeps others from changing permissions of one hosting meanwhile: each would keep for its undo
// what the other has half done. A file in the directory of the undo files, which goes with the
// object or the process; a named object of the system's would be anybody's to take, hosted users'
// included.
class HostingLock {
public:
    // root  of the hosting. Throws vexception when another holds the lock; otherwise as UndoLog.
    HostingLock(const std::wstring& root, const ItemIdentity& identity);

private:
    RunTime::AutoHandle file_;
};

// Writes one. The file is made new, for System and Administrators alone, in
// "logs\hosting-security" below the panel's data directory (PRODUCT_DATA_D), which is made where it
// is not there. Nothing in it counts before sync() has returned.
class UndoLog {
public:
    // Bytes, for all items together. Hosted users choose how long the descriptors are that are
    // kept.
    static constexpr std::uint64_t largest = 4ULL * 1024 * 1024 * 1024;

    // "Unable to create file (%s)", "Unable to create directory (%s)"; vosexception when the
    // configuration does not tell the data directory.
    UndoLog(const UndoHead& head, const std::wstring& domain, std::uint64_t limit = largest);
    // Ends the file, for undo() to see that it is whole.
    ~UndoLog();
    UndoLog(const UndoLog&) = delete;
    UndoLog& operator=(const UndoLog&) = delete;

    // Throws vosexception (ERROR_FILE_TOO_LARGE) when the file is full.
    void add(const UndoItem& item);
    // Writes what was added to the disk. "Unable to write file (%s)".
    void sync();

    const std::wstring& path() const noexcept { return path_; } // in long form

private:
    void append(DWORD kind, const RunTime::RecordContent& content);

    std::wstring path_;
    RunTime::AutoHandle file_;
    std::vector<unsigned char> waiting_;
    std::uint64_t room_;
    std::uint64_t checksum_ = 0;
    std::uint64_t count_ = 0;
    bool broken_ = false; // part of a record may be in the file
};

// The bytes of an undo file, wherever they are.
class IUndoBytes {
public:
    virtual ~IUndoBytes() = default;
    virtual std::uint64_t size() = 0;
    // Fills all of it from the offset. Throws where it cannot.
    virtual void read(std::uint64_t offset, std::span<unsigned char> bytes) = 0;
};

// The bytes are no undo file, or not all of one.
class UndoFileException : public vexception {
    using vexception::vexception;
};

class UndoReader {
public:
    // Looks at the whole file. bytes must outlive the reader, and must not change. Throws
    // UndoFileException for a damaged, truncated or foreign file. With unfinished the end may be
    // missing, as when the machine went down during the repair: the whole records count.
    UndoReader(IUndoBytes& bytes, bool unfinished);

    const UndoHead& head() const noexcept { return head_; }
    // The items, the last one first; false when there are no more.
    bool previous(UndoItem& item);

private:
    struct Record {
        DWORD kind = 0;
        std::uint64_t checksum = 0;
        DWORD size = 0;
        std::span<const unsigned char> content;
    };
    bool readRecord(std::uint64_t offset, Record& record);

    IUndoBytes& bytes_;
    std::vector<unsigned char> buffer_;
    UndoHead head_;
    std::uint64_t firstItem_ = 0; // offsets
    std::uint64_t at_ = 0;
};

} // namespace HostingSecurity
