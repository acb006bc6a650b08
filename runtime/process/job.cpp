#include "runtime/process/job.h"

#include "runtime/exception.h"
#include "runtime/log_manager.h"

namespace RunTime {

namespace {

constexpr DWORD endTime = 10'000; // milliseconds

BOOL setLimits(HANDLE job, DWORD flags) noexcept {
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = flags;
    return ::SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits,
                                     sizeof limits);
}

} // namespace

Job::Job() : job_(::CreateJobObjectW(nullptr, nullptr)) {
    // Each is looked at on the next line: a call that succeeds may change the last error, too.
    const auto check = [](bool done, int line) {
        if (!done) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to create a job", code, {L"", "RunTime::Job::Job", line});
        }
    };
    check(static_cast<bool>(job_), __LINE__);
    port_.reset(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1));
    check(static_cast<bool>(port_), __LINE__);
    check(setLimits(job_.get(), JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE), __LINE__);
    JOBOBJECT_ASSOCIATE_COMPLETION_PORT association{nullptr, port_.get()};
    check(::SetInformationJobObject(job_.get(), JobObjectAssociateCompletionPortInformation,
                                    &association, sizeof association),
          __LINE__);
}

Job::~Job() {
    if (!used_ || !hasProcesses()) {
        return;
    }
    if (!::TerminateJobObject(job_.get(), ERROR_CANCELLED)) {
        LogManager::getInstance().vAddLog(LogType::Warning,
                                          L"Unable to end a program and what it has started");
        return;
    }
    const ULONGLONG deadline = ::GetTickCount64() + endTime;
    for (ULONGLONG now = ::GetTickCount64(); now < deadline; now = ::GetTickCount64()) {
        DWORD message = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* process = nullptr;
        if (!::GetQueuedCompletionStatus(port_.get(), &message, &key, &process,
                                         static_cast<DWORD>(deadline - now)) ||
            message == JOB_OBJECT_MSG_ACTIVE_PROCESS_ZERO) {
            return;
        }
    }
}

void Job::add(HANDLE process) {
    if (!::AssignProcessToJobObject(job_.get(), process)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to add to a job", code, {L"", "RunTime::Job::add", __LINE__});
    }
    used_ = true;
}

void Job::release() noexcept {
    if (!setLimits(job_.get(), 0)) {
        LogManager::getInstance().vAddLog(LogType::Warning,
                                          L"What a program has left running ends with it");
    }
    used_ = false;
}

bool Job::hasProcesses() const noexcept {
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION counts{};
    return !::QueryInformationJobObject(job_.get(), JobObjectBasicAccountingInformation, &counts,
                                        sizeof counts, nullptr) ||
           counts.ActiveProcesses != 0;
}

} // namespace RunTime
