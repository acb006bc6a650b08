#include "relocation/backupcopy.h"

#include "relocation/backup_file_copier.h"
#include "runtime/native_span.h"

void backupcopy::copy(const std::wstring& source, const std::wstring& target, Target kind) {
    const NativeSpan span("backupcopy::copy", __LINE__);
    failed_ = failedBefore_;
    failedPaths_.clear();
    existing_.clear();
    report_ = reportBefore_;
    const std::wstring from = RunTime::longPath(source);
    const std::wstring to = RunTime::longPath(target);

    RunTime::Directory walker(from);
    const Hook hooks[] = {
        forwardEvent(walker.progressEvent_Total, progressEvent_Total),
        forwardEvent(walker.progressEvent_Name2, progressEvent_Name2),
        forwardEvent(walker.progressEvent_Bytes, progressEvent_Bytes),
        forwardEvent(walker.itemAbandonedEvent, itemAbandonedEvent),
        forwardEvent(walker.errorEvent, errorEvent),
    };
    BackupFileCopier copier(from, to, streams_, copyOwner_, report_);
    RunTime::Directory::CopyJob job{copier,       report_,  failed_, existing_,
                                    failedPaths_, leftOut_, adopted_};
    walker.backupCopy(to, kind, job);
}
