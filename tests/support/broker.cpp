#include "support/broker.hpp"

#include "support/process.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <stdexcept>

namespace support {

namespace {

std::string userName() {
    passwd const* const user = getpwuid(geteuid());
    return user ? user->pw_name : "root";
}

/// Whether a broker answers CONNECT. An accepted connection proves less: the kernel accepts
/// connections for a process that listens but does not handle signals yet.
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

} // namespace

Broker::Broker(Options const& options)
    : lease_(options.port == 0 ? PortLease() : PortLease(options.port)),
      hangHandler_([this](std::ostream& out) { handleHang(out); }) {
    if (access(ZYM_MOSQUITTO_PROGRAM, X_OK) != 0) {
        throw std::runtime_error("There is no mosquitto broker at \"" ZYM_MOSQUITTO_PROGRAM
                                 "\". Install it (Debian: apt-get install mosquitto) and"
                                 " configure the build anew.");
    }
    writeConfiguration(options);
    start();
}

Broker::~Broker() {
    if (testing::Test::HasFailure()) {
        std::cerr << logTail() << std::flush;
    }
    kill();
}

void Broker::kill() {
    std::lock_guard<std::mutex> lock(mutex_);
    pid_ = 0;
    process_.reset();
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
        process_ = std::make_unique<Process>(
            std::vector<std::string>{ZYM_MOSQUITTO_PROGRAM, "-c", directory_.file("broker.conf")},
            directory_.file("broker.log"));
        pid_ = process_->pid();
    }
    return answers(port()) && !process_->ended();
}

void Broker::suspend() {
    std::lock_guard<std::mutex> lock(mutex_);
    process_->suspend();
}

void Broker::resume() {
    std::lock_guard<std::mutex> lock(mutex_);
    process_->resume();
}

void Broker::writeConfiguration(Options const& options) const {
    std::ofstream file(directory_.file("broker.conf"));
    file << "listener " << port() << " 127.0.0.1\n";
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

std::string Broker::logTail() const {
    constexpr std::size_t LENGTH = 8000;
    std::string const text = log();
    std::string const tail = text.size() > LENGTH ? text.substr(text.size() - LENGTH) : text;
    return "[broker on port " + std::to_string(port()) + "] end of its log:\n" + tail + "\n";
}

void Broker::handleHang(std::ostream& out) const {
    out << logTail();
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
    }
    directory_.remove();
}

} // namespace support
