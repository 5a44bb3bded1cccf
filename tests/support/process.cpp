#include "support/process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace support {

namespace {

/// Only plain system calls: another thread may have held any lock at the moment of the fork.
[[noreturn]] void becomeChild(char* const* arguments, char const* output, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) { // the parent ended before the line above
        _exit(127);
    }
    int const out = open(output, O_WRONLY | O_CREAT | O_APPEND, 0666);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    execv(arguments[0], arguments);
    _exit(127);
}

} // namespace

/// The kernel kills the child when the thread that forked it ends. So each child has a thread,
/// which ends after it.
Process::Process(std::vector<std::string> const& command, std::string const& output) {
    std::vector<char*> arguments;
    for (std::string const& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str())); // which execv does not change
    }
    arguments.push_back(nullptr);
    pid_t const parent = getpid();
    thread_ = std::thread([this, arguments = arguments.data(), path = output.c_str(), parent] {
        pid_t const child = fork();
        if (child == 0) {
            becomeChild(arguments, path, parent);
        }
        int const error = errno;
        state_.change([&](State& state) { state.pid = child < 0 ? -error : child; });
        observe(child);
    });
    state_.waitFor([](State const& state) { return state.pid != 0; });
    if (pid() < 0) {
        thread_.join();
        throw std::system_error(-pid(), std::generic_category(), "fork");
    }
}

Process::~Process() {
    signal(SIGKILL);
    thread_.join();
}

void Process::observe(pid_t child) {
    siginfo_t info{};
    constexpr int CHANGES = WEXITED | WSTOPPED | WCONTINUED;
    while (!ended() && waitid(P_PID, static_cast<id_t>(child), &info, CHANGES | WNOWAIT) == 0) {
        // Its number is given up with the lock held: `signal` never hits another process.
        state_.change([&](State& state) {
            waitid(P_PID, static_cast<id_t>(child), &info, CHANGES | WNOHANG);
            state.stopped = info.si_code == CLD_STOPPED;
            state.ended = info.si_code != CLD_STOPPED && info.si_code != CLD_CONTINUED;
        });
    }
}

void Process::signal(int number) {
    state_.read([&](State const& state) { return state.ended ? 0 : ::kill(state.pid, number); });
}

void Process::suspend() {
    signal(SIGSTOP);
    state_.waitFor([](State const& state) { return state.stopped || state.ended; });
}

void Process::resume() {
    signal(SIGCONT);
    state_.waitFor([](State const& state) { return !state.stopped || state.ended; });
}

} // namespace support
