// The record of the move of the virtual hosts that is running, on disk: what a process that dies
// leaves of it, for "zopctl vhosts recover".
//
// It is the file "vhosts-move\running" below the panel's data directory (PRODUCT_DATA_D); below the
// panel's own (PRODUCT_ROOT_D) where the former is not configured, or lies in what is moved. Only
// System and Administrators get at it. It consists of records (runtime/files/checked_record.h)
// whose seeds are their numbers, from 0, and it only grows: a torn end says nothing that was acted
// on. Each call that tells of what is begun returns when that is on the disk; what tells of single
// accounts and links is written, and gets there with the next.
//
// The process that moves holds the file open: nobody else can write or delete it until it has
// ended.
#pragma once

#include "relocation/vhosts/recorded_move.h"
#include "runtime/auto_handle.h"
#include "runtime/files/checked_record.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class MoveRecord {
public:
    enum class Kind : DWORD {
        Head = 0x4556'4F4D, // "MOVE"
        Paths = 1,
        Part,
        Value,
        Made,
        User,
        Account,
        Quota,
        Identity,
        SetAside,
        Way,
        Site,
        Roots,
        Root,
        Servers,
        Webmail,
        Link,
        Completed,
        Commit,
    };
    static constexpr DWORD version = 1;
    static constexpr std::uint64_t maxSize = 256 * 1024 * 1024; // bytes

    enum class State { None, Running, Left };
    // Whether there is one, and of a process that lives; path says where. Changes nothing. Throws
    // where it cannot be told.
    static State look(std::wstring& path);
    // For a state that forbids a move: what to say about it, and what to do then.
    static std::wstring reason(State state, const std::wstring& path);
    static std::wstring remedy(State state);

    // Begins one. Refuses (vexception) while there is another, or where none can be written; then
    // nothing of it is left.
    static std::unique_ptr<MoveRecord> create(const std::wstring& setting, const std::wstring& from,
                                              const std::wstring& to);
    // That of a process that has ended, held from now on; null when there is none. Throws
    // MoveRecordException for one that somebody else may have written, vexception while its process
    // lives.
    static std::unique_ptr<MoveRecord> open();
    RecordedMove read();

    // For those two: an open file, and its path in long form.
    MoveRecord(const std::wstring& path, RunTime::AutoHandle file);
    MoveRecord(const MoveRecord&) = delete;
    MoveRecord& operator=(const MoveRecord&) = delete;

    // ---- what is about to be done. "Unable to write file (%s)".
    void paths(const std::wstring& from, const std::wstring& to);
    void begin(MovePart part);
    void values(const std::vector<RecordedMove::Value>& values);
    void made(const std::vector<std::wstring>& directories);
    void users(const std::vector<RecordedMove::User>& users);
    void account(const std::wstring& login, const std::wstring& home);
    void quota(const std::wstring& login, const std::optional<std::uint64_t>& old);
    void tree(const HostingSecurity::ItemIdentity& identity);
    void setAside(const std::wstring& name);
    void way(RecordedMove::Way way, const std::wstring& log);
    void sites(const std::map<std::wstring, std::wstring>& sites);
    void roots(const std::map<std::wstring, RecordedMove::Root>& roots);
    void servers(const std::wstring& aside);
    void webmail(const SavedFile::Stamp& stamp);
    void link(const LinkRelink::Changed& link);
    void completed();
    // From now on nothing goes back. Where that cannot be written, all of the record goes, which
    // has the same effect; it throws when that fails as well.
    void commit();

    // Deletes the file: everything is as it was, or final. "Unable to delete file (%s)".
    void remove();
    const std::wstring& path() const noexcept { return path_; } // nice form

private:
    void add(Kind kind, const RunTime::RecordContent& content);
    void write(bool toDisk);

    std::wstring path_;
    RunTime::AutoHandle file_;
    std::vector<unsigned char> waiting_;
    std::uint64_t size_ = 0;    // of what counts in the file
    std::uint64_t written_ = 0; // records in the file
    std::uint64_t next_ = 0;    // number of the record to come
    bool hasStaleEnd_ = false;  // something stands in the file behind size_
    bool isVoid_ = false;       // nothing is to stand in it any more
};
