#pragma once

#include "support/eventually.hpp"

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace support {

/// A child process that never outlives us: the destructor kills it, and so does the kernel
/// when this process ends in any other way.
class Process {
public:
    /// @param command program (with its path) and arguments
    /// @param output file to which standard output and standard error are appended
    /// @param environment "NAME=value", added to ours or in place of it
    /// @throws std::system_error. A program that cannot be run ends with status 127.
    Process(std::vector<std::string> const& command, std::string const& output,
            std::vector<std::string> const& environment = {});
    ~Process();
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    pid_t pid() const noexcept { return pid_; }
    bool ended();
    bool waitForEnd(std::chrono::milliseconds deadline = DEADLINE);
    /// As of waitpid(2), once it has ended.
    int status() const noexcept { return status_; }

    void signal(int number);
    /// Returns when it is gone.
    void kill();
    /// Returns when it stands still.
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
