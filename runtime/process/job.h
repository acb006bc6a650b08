// A program and everything it starts, held together so that they can be ended together.
#pragma once

#include "runtime/auto_handle.h"

namespace RunTime {

class Job {
public:
    // What is in the job ends when the last handle to it is closed, so also when our own process
    // dies. "Unable to create a job".
    Job();
    // Ends what is in the job and waits, ten seconds at most, until the last process is gone.
    ~Job();
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    // The program must not have run yet; it may be in a job already. "Unable to add to a job".
    void add(HANDLE process);

    // From now on what is in the job lives on without it.
    void release() noexcept;

private:
    bool hasProcesses() const noexcept;

    AutoHandle job_;
    AutoHandle port_; // tells when the last process has ended
    bool used_ = false;
};

} // namespace RunTime
