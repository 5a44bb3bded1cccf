#pragma once

#include "support/watched.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace support {

/// A child process that never outlives this one: the destructor kills it, and so does the kernel
/// when this process ends in any other way. One that cannot be made or run has ended.
class Process {
public:
    /// @param command program (with its path) and arguments
    /// @param output file to which standard output and standard error are appended
    Process(std::vector<std::string> command, std::string const& output)
        : command_(std::move(command)), output_(output), thread_([this] { run(); }) {
        state_.waitFor([](State const& state) { return state.pid != 0; });
    }
    ~Process() {
        signal(SIGKILL);
        thread_.join();
    }
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    pid_t pid() const { return state_.copy().pid; }
    bool ended() const { return state_.copy().ended; }
    bool waitForEnd() const {
        return state_.waitFor([](State const& state) { return state.ended; });
    }
    void signal(int number) {
        state_.read([&](State const& state) { return state.ended ? 0 : kill(state.pid, number); });
    }
    /// SIGSTOP; returns when it has stopped.
    void suspend() {
        signal(SIGSTOP);
        waitForChange(pid(), WSTOPPED | WEXITED | WNOWAIT);
    }
    void resume() { signal(SIGCONT); }

private:
    struct State {
        pid_t pid = 0;
        bool ended = false;
    };

    /// The kernel kills a child when the thread that forked it ends. So each child has a thread,
    /// which ends after it.
    void run() {
        std::vector<char*> arguments;
        for (std::string& word : command_) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        pid_t const parent = getpid();
        pid_t const child = fork();
        if (child == 0) {
            becomeProgram(arguments.data(), parent);
        }
        state_.change([&](State& state) { state.pid = child; });
        waitForChange(child, WEXITED | WNOWAIT);
        // Its number is given up with the lock held: `signal` never hits another process.
        state_.change([&](State& state) {
            waitForChange(child, WEXITED);
            state.ended = true;
        });
    }

    /// Only plain system calls: another thread may have held any lock at the moment of the fork.
    [[noreturn]] void becomeProgram(char* const* arguments, pid_t parent) const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) { // otherwise the parent ended before the line above
            int const out = open(output_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
            dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            execv(arguments[0], arguments);
        }
        _exit(127);
    }

    /// Returns at once when there is no such child.
    static void waitForChange(pid_t child, int changes) {
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(child), &info, changes) != 0 && errno == EINTR) {
        }
    }

    std::vector<std::string> command_;
    std::string const output_;
    Watched<State> state_;
    std::thread thread_;
};

} // namespace support
