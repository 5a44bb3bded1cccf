#include "broker_process.hpp"

#include "cpu_clock.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace bench {
namespace {

[[noreturn]] void raiseErrno(char const* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class Socket {
public:
    Socket() : descriptor_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (descriptor_ < 0) {
            raiseErrno("socket");
        }
    }
    ~Socket() { ::close(descriptor_); }
    Socket(Socket const&) = delete;
    Socket& operator=(Socket const&) = delete;

    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

/// The system's address type is reached through a pointer to another one: both are plain data
/// that begin alike, and the calls are made for this.
template <typename Call>
int withLoopback(Call call, sockaddr_in& address) {
    return call(static_cast<sockaddr*>(static_cast<void*>(&address)));
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// Another process may take the port before the broker does; the broker then ends at once and
/// the start is reported as failed.
int freePort() {
    Socket const socket;
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto const bind = [&](sockaddr* to) { return ::bind(socket.descriptor(), to, length); };
    auto const name = [&](sockaddr* to) { return ::getsockname(socket.descriptor(), to, &length); };
    if (withLoopback(bind, address) != 0 || withLoopback(name, address) != 0) {
        raiseErrno("no free port");
    }
    return ntohs(address.sin_port);
}

bool accepts(int port) {
    Socket const socket;
    sockaddr_in address = loopback(port);
    auto const connect = [&](sockaddr* to) {
        return ::connect(socket.descriptor(), to, sizeof address);
    };
    return withLoopback(connect, address) == 0;
}

/// Debian puts the broker where the search path of an ordinary user does not lead.
std::string program() {
    std::string const usual = "/usr/sbin/mosquitto";
    return ::access(usual.c_str(), X_OK) == 0 ? usual : "mosquitto";
}

std::string makeFolder() {
    std::string path = (std::filesystem::temp_directory_path() / "bench-broker-XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr) {
        raiseErrno("mkdtemp");
    }
    return path;
}

/// Runs between fork and exec, so calls nothing but the system.
[[noreturn]] void becomeBroker(char const* path, char const* configuration, int output) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::execlp(path, path, "-c", configuration, nullptr);
    ::_exit(127);
}

} // namespace

BrokerProcess::BrokerProcess(Variant variant) : folder_(makeFolder()), port_(freePort()) {
    try {
        writeConfiguration(variant);
        spawn();
        awaitListening();
    } catch (...) {
        stop();
        throw;
    }
}

BrokerProcess::~BrokerProcess() {
    stop();
}

void BrokerProcess::writeConfiguration(Variant variant) const {
    std::ofstream file(folder_ + "/broker.conf");
    file << "listener " << port_ << ' ' << "127.0.0.1\nallow_anonymous true\n";
    if (::geteuid() == 0) {
        // The broker would become a user who cannot read this folder.
        file << "user root\n";
    }
    if (variant == Variant::NODELAY) {
        file << "set_tcp_nodelay true\n";
    }
    if (!file.flush()) {
        throw std::runtime_error("cannot write the broker's configuration");
    }
}

void BrokerProcess::spawn() {
    std::string const path = program();
    std::string const configuration = folder_ + "/broker.conf";
    std::string const log = folder_ + "/broker.log";
    int const output = ::open(log.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    pid_ = ::fork();
    if (pid_ == 0) {
        becomeBroker(path.c_str(), configuration.c_str(), output);
    }
    ::close(output);
    if (pid_ < 0 || ::clock_getcpuclockid(pid_, &clock_) != 0) {
        raiseErrno("cannot start the broker");
    }
}

void BrokerProcess::awaitListening() {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!accepts(port_)) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("the broker ended at once; is mosquitto installed?");
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("the broker does not listen");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void BrokerProcess::stop() noexcept {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

double BrokerProcess::cpuTime() const {
    return cpuSeconds(clock_);
}

char const* BrokerProcess::describe(Variant variant) {
    return variant == Variant::NODELAY ? "set_tcp_nodelay true" : "as shipped";
}

std::string BrokerProcess::version() {
    std::FILE* const pipe = ::popen((program() + " -h 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) {
        return "mosquitto";
    }
    std::array<char, 80> line{};
    bool const read = std::fgets(line.data(), static_cast<int>(line.size()), pipe) != nullptr;
    ::pclose(pipe);
    std::string text = read ? line.data() : "mosquitto";
    return text.substr(0, text.find('\n'));
}

} // namespace bench
