#include "mqtt/test/broker.hpp"

#include "mqtt/test/watched.hpp"
#include "net/socket.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace mqtt::test {

namespace {

std::atomic<bool (*)()> hasTestFailed{nullptr};

std::string environment(char const* name) {
    char const* const value = std::getenv(name);
    return value ? value : "";
}

std::string findProgram() {
    std::vector<std::string> candidates{environment("ZYM_MQTT_TEST_BROKER")};
    if (candidates.front().empty()) {
        // The search path of a plain user often lacks the folders of services.
        std::istringstream folders(environment("PATH") + ":/usr/sbin:/usr/local/sbin");
        for (std::string folder; std::getline(folders, folder, ':');) {
            candidates.push_back(folder + "/mosquitto");
        }
    }
    for (std::string const& program : candidates) {
        if (access(program.c_str(), X_OK) == 0) {
            return program;
        }
    }
    throw std::runtime_error("There is no mosquitto broker in PATH, or at ZYM_MQTT_TEST_BROKER. "
                             "Install it (Debian: apt-get install mosquitto).");
}

std::string userName() {
    passwd const* const user = getpwuid(geteuid());
    return user ? user->pw_name : "root";
}

/// As one word of a shell's command.
std::string quoted(std::string const& text) {
    std::string word = "'";
    for (char const c : text) {
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return word + "'";
}

/// Whether a broker answers CONNECT. An accepted connection proves less: the kernel accepts
/// connections for a process that listens but does not handle signals yet. A client of the broker
/// library would not do: it cannot wait in a process with more than 1,024 descriptors.
bool answers(int port) {
    FileDescriptor const socket = connectTo(port);
    std::string const connect("\x10\x0c\0\4MQTT\4\2\0\x3c\0\0", 14);
    if (!socket.valid() || !sendAll(socket, connect)) {
        return false;
    }
    pollfd answer{socket.get(), POLLIN, 0};
    bool const answered = poll(&answer, 1, 1000) == 1;
    sendAll(socket, std::string("\xe0\0", 2)); // DISCONNECT
    return answered;
}

Watched<std::set<Broker const*>>& allBrokers() {
    static Watched<std::set<Broker const*>> all;
    return all;
}

} // namespace

/// A child process that never outlives this one: the destructor kills it, and so does the kernel
/// when this process ends in any other way. One that cannot be made or run has ended.
class Broker::Process {
public:
    Process(std::string program, TempDir const& directory)
        : program_(std::move(program)),
          configuration_(directory.file("broker.conf")),
          log_(directory.file("broker.log")),
          thread_([this] { run(); }) {
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
        state_.read(
            [&](State const& state) { return state.ended ? 0 : ::kill(state.pid, number); });
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
        pid_t const parent = getpid();
        pid_t const child = fork();
        if (child == 0) {
            becomeBroker(parent);
        }
        state_.change([&](State& state) { state = {child, child < 0}; });
        waitForChange(child, WEXITED | WNOWAIT);
        // Its number is given up with the lock held: `signal` never hits another process.
        state_.change([&](State& state) {
            waitForChange(child, WEXITED);
            state.ended = true;
        });
    }

    /// Only plain system calls: another thread may have held any lock at the moment of the fork.
    [[noreturn]] void becomeBroker(pid_t parent) const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigset_t none; // a process that blocks SIGTERM would have a broker that does not stop
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (getppid() == parent) { // otherwise the parent ended before the line above
            int const out = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
            dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            execl(program_.c_str(), program_.c_str(), "-c", configuration_.c_str(), nullptr);
        }
        _exit(127);
    }

    /// Returns at once when there is no such child.
    static void waitForChange(pid_t child, int changes) {
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(child), &info, changes) != 0 && errno == EINTR) {
        }
    }

    std::string const program_;
    std::string const configuration_;
    std::string const log_;
    Watched<State> state_;
    std::thread thread_;
};

bool isEncryptionWanted() {
    return !environment("ZYM_MQTT_TEST_TLS").empty();
}

Broker::Broker(BrokerOptions const& options) : program_(findProgram()) {
    if (options.encrypted) {
        plainLease_.emplace();
        makeCertificate();
    }
    writeConfiguration(options);
    start();
    allBrokers().change([this](auto& all) { all.insert(this); });
}

Broker::~Broker() {
    allBrokers().change([this](auto& all) { all.erase(this); });
    bool (*const hasFailed)() = hasTestFailed;
    if (hasFailed && hasFailed()) {
        std::cerr << logTail() << std::flush;
    }
    kill();
}

void Broker::kill() {
    std::lock_guard<std::mutex> lock(mutex_);
    process_.reset();
}

pid_t Broker::pid() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return process_ ? process_->pid() : 0;
}

void Broker::stop() {
    if (std::lock_guard<std::mutex> lock(mutex_); process_) {
        process_->resume();
        process_->signal(SIGTERM);
        if (!process_->waitForEnd()) {
            throw std::runtime_error("The broker does not end\n" + logTail());
        }
    }
    kill();
}

void Broker::start() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!eventually([this] { return isUp(); })) {
        throw std::runtime_error("The broker does not come up\n" + logTail());
    }
}

/// Tries again while the port is taken: another test may just have probed it.
bool Broker::isUp() {
    if (process_ && process_->ended()) {
        process_.reset();
        if (log().find("ddress already in use") == std::string::npos) {
            throw std::runtime_error("The broker does not start\n" + logTail());
        }
    }
    if (!process_) {
        process_ = std::make_unique<Process>(program_, directory_);
    }
    return answers(plainPort()) && !process_->ended();
}

void Broker::suspend() {
    if (std::lock_guard<std::mutex> lock(mutex_); process_) {
        process_->suspend();
    }
}

void Broker::resume() {
    if (std::lock_guard<std::mutex> lock(mutex_); process_) {
        process_->resume();
    }
}

void Broker::writeConfiguration(BrokerOptions const& options) const {
    std::ofstream file(directory_.file("broker.conf"));
    file << "listener " << plainPort() << " 127.0.0.1\n";
    if (options.encrypted) {
        file << "listener " << port() << " 127.0.0.1\ncafile " << authority() << "\ncertfile "
             << authority() << "\nkeyfile " << directory_.file("broker.key") << "\n";
    }
    if (options.unixSocket) {
        file << "listener 0 " << socketPath() << "\n";
    }
    // Without this user a broker started by root changes its identity, and with it loses the
    // signal that ends it together with this process.
    file << "allow_anonymous true\n"
         << "user " << userName() << "\n"
         << "log_dest stderr\nlog_type all\nlog_timestamp_format %H:%M:%S\n"
         << "set_tcp_nodelay " << (options.nodelay ? "true" : "false") << "\n";
    if (options.persistence) {
        file << "persistence true\npersistence_location " << directory_.path() << "/\n"
             << "autosave_interval 1\nautosave_on_changes true\n";
    }
    for (std::string const& line : options.extraLines) {
        file << line << "\n";
    }
}

/// It signs itself.
void Broker::makeCertificate() const {
    std::string const command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "
        "/CN=broker -addext subjectAltName=IP:127.0.0.1 -keyout "
        + quoted(directory_.file("broker.key")) + " -out " + quoted(authority()) + " 2>>"
        + quoted(directory_.file("broker.log"));
    // NOLINTNEXTLINE(concurrency-mt-unsafe): it reads the environment, as this class does
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("The broker gets no certificate\n" + logTail());
    }
}

ConnectionOptions Broker::connectionOptions() const {
    ConnectionOptions options;
    if (plainLease_) {
        options.tls.emplace().caFile = authority();
    }
    return options;
}

std::string Broker::logTail() const {
    constexpr std::size_t LENGTH = 8000;
    std::string const text = log();
    std::string const tail = text.size() > LENGTH ? text.substr(text.size() - LENGTH) : text;
    return "[broker on port " + std::to_string(port()) + "] end of its log:\n" + tail + "\n";
}

void Broker::printLogWhen(bool (*hasFailed)()) noexcept {
    hasTestFailed = hasFailed;
}

void Broker::handleHang(std::ostream& out) {
    allBrokers().read([&](auto const& all) {
        for (Broker const* const broker : all) {
            out << broker->logTail();
            broker->directory_.remove();
        }
    });
}

} // namespace mqtt::test
