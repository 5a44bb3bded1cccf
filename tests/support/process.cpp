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
#include <set>
#include <system_error>
#include <thread>

namespace support {

namespace {

/// One thread forks all children and lives as long as the process. The kernel sends the
/// parent's death signal when the *thread* that forked ends: a broker restarted by a test's
/// helper thread would die with that thread.
class Forker {
public:
    static Forker& instance() {
        static Forker forker;
        return forker;
    }

    pid_t run(std::function<pid_t()> fork) {
        std::packaged_task<pid_t()> task(std::move(fork));
        std::future<pid_t> pid = task.get_future();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        changed_.notify_all();
        return pid.get();
    }

private:
    Forker() : thread_([this] { serve(); }) {}
    ~Forker() {
        run([this] { return stop_ = true; });
        thread_.join();
    }

    void serve() {
        while (!stop_) {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !tasks_.empty(); });
            std::packaged_task<pid_t()> task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::packaged_task<pid_t()>> tasks_;
    bool stop_ = false; ///< touched by the thread alone
    std::thread thread_;
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

std::string nameIn(std::string const& variable) {
    return variable.substr(0, variable.find('='));
}

/// Our environment with these variables added or replaced.
std::vector<std::string> environmentWith(std::vector<std::string> variables) {
    std::set<std::string> given;
    for (std::string const& variable : variables) {
        given.insert(nameIn(variable));
    }
    for (char** entry = environ; *entry; ++entry) {
        if (given.count(nameIn(*entry)) == 0) {
            variables.emplace_back(*entry);
        }
    }
    return variables;
}

/// Everything the child needs, made before the fork: after it only plain system calls are
/// safe, as another thread may have held any lock at that moment.
struct Launch {
    std::vector<std::string> command;
    std::vector<std::string> environment;
    std::string output;
    std::vector<char*> arguments;
    std::vector<char*> variables;
    pid_t parent;

    [[noreturn]] void becomeChild() const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) { // it was gone before the line above
            _exit(127);
        }
        int const out = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
        int const in = open("/dev/null", O_RDONLY);
        dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        execve(arguments[0], arguments.data(), variables.data());
        _exit(127);
    }
};

pid_t launch(Launch const& launch) {
    pid_t const pid = fork();
    if (pid == 0) {
        launch.becomeChild();
    }
    return pid < 0 ? -errno : pid;
}

} // namespace

Process::Process(std::vector<std::string> const& command, std::string const& output,
                 std::vector<std::string> const& environment) {
    Launch plan{command, environmentWith(environment), output, {}, {}, getpid()};
    plan.arguments = pointers(plan.command);
    plan.variables = pointers(plan.environment);
    pid_ = Forker::instance().run([&plan] { return launch(plan); });
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
        if (waitpid(pid_, &status_, 0) == pid_ || errno != EINTR) {
            ended_ = true;
        }
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
    auto const name = text.rfind(") "); // the name may hold anything
    return name != std::string::npos && text[name + 2] != 'Z' && text[name + 2] != 'X';
}

} // namespace support
