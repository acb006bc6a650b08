// Copies the streams of one open item by ordinary calls, as far as those reach: the data with its
// holes, named streams, the text of a link. For file systems that refuse the backup API
// (relocation/backup_stream.h), whose buffer and progress it uses.
#pragma once

#include "relocation/backup_stream.h"
#include "relocation/copy_report.h"
#include "relocation/stream_type.h"
#include "runtime/files/file.h"

#include <cstdint>
#include <string>
#include <windows.h>

class OrdinaryStreamCopy {
public:
    struct Item {
        HANDLE source = nullptr;
        HANDLE target = nullptr;
        const std::wstring& sourcePath; // long form
        const std::wstring& targetPath;
        const RunTime::FileInformation& entry; // of the source
        std::int64_t size = 0;                 // of its data, now
        StreamType keep = StreamType::All;
        bool namedStreams = true; // looked for; they are reported when keep leaves them out
    };

    OrdinaryStreamCopy(BackupStreamCopy& shared, CopyReport& report)
        : shared_(shared), report_(report) {}

    // A cancellation point after each buffer. Throws vosexception for what cannot be copied.
    void run(const Item& item);

private:
    void copyData(HANDLE source, HANDLE target, std::int64_t from, std::int64_t to);
    // The allocated ranges of a sparse file; false when the system does not tell them.
    bool copyRanges(HANDLE source, HANDLE target, std::int64_t size);
    void copyNamedStreams(const std::wstring& source, const std::wstring& target, bool keep);
    void copyReparsePoint(HANDLE source, HANDLE target, const std::wstring& path);

    BackupStreamCopy& shared_;
    CopyReport& report_;
};
