#pragma once

#include "support/watched.hpp"

#include <sys/types.h>

#include <string>
#include <thread>
#include <vector>

namespace support {

/// A child process that never outlives this one: the destructor kills it, and so does the kernel
/// when this process ends in any other way.
class Process {
public:
    /// @param command program (with its path) and arguments
    /// @param output file to which standard output and standard error are appended
    /// @throws std::system_error. A program that cannot be run ends with status 127.
    Process(std::vector<std::string> const& command, std::string const& output);
    ~Process();
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    pid_t pid() const { return state_.copy().pid; }
    bool ended() const { return state_.copy().ended; }
    bool waitForEnd() const {
        return state_.waitFor([](State const& state) { return state.ended; });
    }
    void signal(int number);
    /// SIGSTOP; returns when it has stopped.
    void suspend();
    /// SIGCONT; returns when it runs again.
    void resume();

private:
    struct State {
        pid_t pid = 0; ///< negative: the reason why there is no process
        bool stopped = false;
        bool ended = false;
    };

    void observe(pid_t child);

    Watched<State> state_;
    std::thread thread_;
};

} // namespace support
