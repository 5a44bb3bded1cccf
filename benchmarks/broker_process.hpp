#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>

namespace bench {

/// A mosquitto of our own on a free loopback port. It lives as long as this object and has a
/// folder of its own, so that it shares nothing with a broker of the machine.
class BrokerProcess {
public:
    enum class Variant {
        SHIPPED, ///< nothing but the listener is configured
        NODELAY  ///< with `set_tcp_nodelay true`
    };

    /// Returns when the broker accepts connections.
    /// @throws std::runtime_error, std::system_error when none can be started
    explicit BrokerProcess(Variant variant);
    ~BrokerProcess();
    BrokerProcess(BrokerProcess const&) = delete;
    BrokerProcess& operator=(BrokerProcess const&) = delete;

    int port() const { return port_; }
    /// Processor time used so far, in seconds.
    double cpuTime() const;

    /// What the configuration says beyond listener and access.
    static char const* describe(Variant variant);
    /// The first line of the program's own help: name and version.
    static std::string version();

private:
    void writeConfiguration(Variant variant) const;
    void spawn();
    void awaitListening();
    void stop() noexcept;

    std::string folder_;
    int port_ = 0;
    pid_t pid_ = -1;
    clockid_t clock_{};
};

} // namespace bench
