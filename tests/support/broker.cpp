#include "support/broker.hpp"

#include "support/process.hpp"
#include "support/raw_peer.hpp"

#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <set>
#include <stdexcept>

namespace support {

namespace {

std::string userName() {
    passwd const* const user = getpwuid(geteuid());
    return user ? user->pw_name : "root";
}

/// Whether a broker answers CONNECT. An accepted connection proves less: the kernel accepts
/// connections for a process that listens but does not handle signals yet.
bool answers(Broker const& broker) {
    try {
        RawPeer const peer(broker);
        return true;
    } catch (std::runtime_error const&) {
        return false;
    }
}

Watched<std::set<Broker const*>>& allBrokers() {
    static Watched<std::set<Broker const*>> all;
    return all;
}

} // namespace

Broker::Broker(BrokerOptions const& options)
    : lease_(options.port == 0 ? PortLease() : PortLease(options.port)) {
    if (access(ZYM_MOSQUITTO_PROGRAM, X_OK) != 0) {
        throw std::runtime_error("There is no mosquitto broker at \"" ZYM_MOSQUITTO_PROGRAM
                                 "\". Install it (Debian: apt-get install mosquitto) and"
                                 " configure the build anew.");
    }
    writeConfiguration(options);
    start();
    allBrokers().change([this](auto& all) { all.insert(this); });
}

Broker::~Broker() {
    allBrokers().change([this](auto& all) { all.erase(this); });
    if (testing::Test::HasFailure()) {
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
        process_ = std::make_unique<Process>(
            std::vector<std::string>{ZYM_MOSQUITTO_PROGRAM, "-c", directory_.file("broker.conf")},
            directory_.file("broker.log"));
    }
    return answers(*this) && !process_->ended();
}

void Broker::suspend() {
    std::lock_guard<std::mutex> lock(mutex_);
    process_->suspend();
}

void Broker::resume() {
    std::lock_guard<std::mutex> lock(mutex_);
    process_->resume();
}

void Broker::writeConfiguration(BrokerOptions const& options) const {
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

void Broker::handleHang(std::ostream& out) {
    allBrokers().read([&](auto const& all) {
        for (Broker const* const broker : all) {
            out << broker->logTail();
            broker->directory_.remove();
        }
    });
}

} // namespace support
