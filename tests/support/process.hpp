#pragma once

#include "support/eventually.hpp"

#include <sys/types.h>

#include <string>
#include <vector>

namespace support {

/// A child process that never outlives this one: the destructor kills it, and so does the kernel
/// when this process ends in any other way. For one thread at a time.
class Process {
public:
    /// @param command program (with its path) and arguments
    /// @param output file to which standard output and standard error are appended
    /// @throws std::system_error. A program that cannot be run ends with status 127.
    Process(std::vector<std::string> const& command, std::string const& output);
    ~Process();
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    pid_t pid() const noexcept { return pid_; }
    bool ended();
    bool waitForEnd(std::chrono::milliseconds deadline = DEADLINE);
    /// As of waitpid(2), once it has ended.
    int status() const noexcept { return status_; }

    void signal(int number);
    /// SIGKILL; returns when it has ended.
    void kill();
    /// SIGSTOP; returns when it has stopped.
    void suspend();
    void resume();

private:
    pid_t pid_;
    bool ended_ = false;
    int status_ = 0;
};

/// Whether there is a process of this number that still runs.
bool isAlive(pid_t pid);

} // namespace support
