#include "support/process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <future>
#include <mutex>
#include <system_error>

namespace support {

namespace {

/// Forks all children on one thread that lives as long as this process. The kernel sends the
/// parent's death signal when the thread that forked ends: a broker restarted by a helper thread
/// of a test would end with that thread.
class ForkingThread {
public:
    using Fork = std::packaged_task<pid_t()>;

    ~ForkingThread() {
        add({});
        thread_.join();
    }

    pid_t run(std::function<pid_t()> const& fork) {
        Fork task(fork);
        std::future<pid_t> pid = task.get_future();
        add(std::move(task));
        return pid.get();
    }

private:
    void add(Fork task) {
        std::lock_guard<std::mutex> lock(mutex_);
        tasks_.push_back(std::move(task));
        changed_.notify_all();
    }

    void serve() {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !tasks_.empty(); });
            Fork task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            if (!task.valid()) {
                return; // the end of this process
            }
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Fork> tasks_;
    std::thread thread_{[this] { serve(); }};
};

/// Only plain system calls: another thread may have held any lock at the moment of the fork.
[[noreturn]] void becomeChild(std::vector<char*> const& arguments, char const* output,
                              pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) { // the parent ended before the line above
        _exit(127);
    }
    int const out = open(output, O_WRONLY | O_CREAT | O_APPEND, 0666);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
}

} // namespace

Process::Process(std::vector<std::string> const& command, std::string const& output) {
    std::vector<std::string> words = command;
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    static ForkingThread forkingThread;
    pid_t const parent = getpid();
    pid_ = forkingThread.run([&] {
        pid_t const child = fork();
        if (child == 0) {
            becomeChild(arguments, output.c_str(), parent);
        }
        return child < 0 ? -errno : child;
    });
    if (pid_ < 0) {
        throw std::system_error(-pid_, std::generic_category(), "fork");
    }
}

Process::~Process() {
    kill();
}

bool Process::ended() {
    if (!ended_ && waitpid(pid_, &status_, WNOHANG) != 0) {
        ended_ = true;
    }
    return ended_;
}

bool Process::waitForEnd(std::chrono::milliseconds deadline) {
    return eventually([this] { return ended(); }, deadline);
}

void Process::signal(int number) {
    if (!ended()) {
        ::kill(pid_, number);
    }
}

void Process::kill() {
    signal(SIGKILL);
    while (!ended_) {
        ended_ = waitpid(pid_, &status_, 0) == pid_ || errno != EINTR;
    }
}

void Process::suspend() {
    signal(SIGSTOP);
    if (!ended_ && waitpid(pid_, &status_, WUNTRACED) == pid_ && !WIFSTOPPED(status_)) {
        ended_ = true;
    }
}

void Process::resume() {
    signal(SIGCONT);
}

bool isAlive(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(file, text);
    auto const name = text.rfind(") "); // the name may contain anything
    return name != std::string::npos && text[name + 2] != 'Z' && text[name + 2] != 'X';
}

} // namespace support
