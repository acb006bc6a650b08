// The backup stream format (WIN32_STREAM_ID headers and payloads) as BackupRead gives it and
// BackupWrite takes it, and the copy of one item's streams from handle to handle.
#pragma once

#include "relocation/stream_type.h"
#include "security/descriptor_bytes.h"

#include <cstdint>
#include <functional>
#include <vector>
#include <windows.h>

// One item's streams as they are read. The context that the system keeps behind the handle is
// released by the destructor, which must run before the handle is closed.
class BackupReader {
public:
    BackupReader(HANDLE file, bool security) noexcept : file_(file), security_(security) {}
    ~BackupReader();
    BackupReader(const BackupReader&) = delete;
    BackupReader& operator=(const BackupReader&) = delete;
    // Returns a Win32 code; success with nothing got is the end.
    DWORD read(void* buffer, DWORD bytes, DWORD& got) noexcept;

private:
    HANDLE file_;
    void* context_ = nullptr;
    bool security_;
};

// The same for writing. Security is not written this way (security/descriptor_bytes.h does).
class BackupWriter {
public:
    explicit BackupWriter(HANDLE file) noexcept : file_(file) {}
    ~BackupWriter();
    BackupWriter(const BackupWriter&) = delete;
    BackupWriter& operator=(const BackupWriter&) = delete;
    // Writes all of it, or returns a Win32 code; writing less than asked is ERROR_DISK_FULL.
    DWORD write(const void* buffer, DWORD bytes) noexcept;

private:
    HANDLE file_;
    void* context_ = nullptr;
};

// Copies the streams of one open item to another. The buffer is used for one item after another.
class BackupStreamCopy {
public:
    // What came by that was not written to the target's streams.
    struct Found {
        RunTime::DescriptorBytes security;     // whole and valid, or empty; for the caller to write
        std::vector<unsigned char> objectId;   // payload of the stream; for the caller to set
        StreamType dropped = StreamType::None; // kinds seen and not kept
        bool transactionData = false;          // seen and dropped
        bool sparse = false;                   // holes seen in what was kept
        bool sparseStream = false;             // in a named stream: the writer fills them
    };

    // bytes of data passed so far; for items larger than the buffer, once a buffer
    std::function<void(std::int64_t)> onBytes;

    // keep  the kinds of stream to carry over; SecurityData and ObjectId go to found instead.
    // False when the system refuses the backup API for these files and nothing was written.
    // Throws vosexception: "Unable to read streams", "Unable to write streams"; ERROR_INVALID_DATA
    // for streams that are malformed or of an unknown kind.
    bool run(HANDLE source, HANDLE target, StreamType keep, Found& found);

    unsigned char* buffer();
    static constexpr DWORD bufferBytes = 1024 * 1024;

private:
    enum class Action { Keep, Drop, TakeSecurity, TakeObjectId };
    Action actionFor(const WIN32_STREAM_ID& header, StreamType keep, Found& found);
    std::vector<unsigned char> buffer_;
    Action dataAction_ = Action::Drop; // of the data stream that a sparse block belongs to
};

// Whether the code says that the backup API is not to be had on a file system.
bool isBackupRefused(DWORD code) noexcept;
