#pragma once

#include "mqtt/test/address.hpp"
#include "mqtt/test/port_lease.hpp"
#include "mqtt/test/temp_dir.hpp"

#include <mqtt/connection_options.hpp>

#include <iosfwd>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace mqtt::test {

/// Whether the environment variable ZYM_MQTT_TEST_TLS is set.
bool isEncryptionWanted();

struct BrokerOptions {
    bool nodelay = false;     ///< without it the broker waits for our kernel's acknowledgements
    bool persistence = false; ///< sessions and retained messages survive even `kill`
    bool unixSocket = false;  ///< listens on `socketPath` too
    std::vector<std::string> extraLines{}; ///< of the configuration file
    /// Whether `port` is encrypted. Unless set, whether the environment has ZYM_MQTT_TEST_TLS: so
    /// all tests of a program can be run over TLS. Needs the program openssl.
    bool encrypted = isEncryptionWanted();
};

/// A private mosquitto process on a port of the loopback address, in a new directory below the
/// system's one for temporary files. It ends with this object, and with this process, however that
/// ends.
///
/// The program is the one that the environment variable ZYM_MQTT_TEST_BROKER names, or else the
/// first `mosquitto` in PATH, /usr/sbin and /usr/local/sbin. Its operations may be called from any
/// thread, and wait up to 30 seconds.
class Broker {
public:
    /// Returns when the broker answers.
    /// @throws std::runtime_error there is no such program, or it does not start, with its log
    explicit Broker(BrokerOptions const& options = {});
    ~Broker();
    Broker(Broker const&) = delete;
    Broker& operator=(Broker const&) = delete;

    /// An address, not a name: resolving a name takes time and may prefer IPv6.
    std::string host() const { return "127.0.0.1"; }
    int port() const noexcept { return lease_.port(); }
    /// Never encrypted: at `plainPort`.
    operator Address() const { return {host(), plainPort()}; }
    /// Never encrypted; the same as `port` unless that is.
    int plainPort() const noexcept { return plainLease_ ? plainLease_->port() : port(); }
    /// The file with the authority of the certificate at `port`, if that is encrypted.
    std::string authority() const { return directory_.file("broker.crt"); }
    /// For clients that connect to `port`.
    ConnectionOptions connectionOptions() const;
    /// What to give as host, with port 0, with the option `unixSocket`.
    std::string socketPath() const { return directory_.file("broker.sock"); }
    /// 0 while it does not run.
    pid_t pid() const;

    /// SIGKILL; returns when the process has ended.
    void kill();
    /// SIGTERM; returns when the process has ended.
    /// @throws std::runtime_error it does not end
    void stop();
    /// Starts it again on the same port; returns when it answers. It has forgotten sessions and
    /// retained messages, unless they are persistent.
    /// @throws std::runtime_error it does not start, with its log
    void start();
    /// SIGSTOP: connections stay open, nothing is answered. Nothing happens while it does not
    /// run.
    void suspend();
    void resume();

    /// What it has written so far, over all its processes.
    std::string log() const { return directory_.read("broker.log"); }

    /// Every broker's destructor prints the end of its log when `hasFailed()`, which it calls. With
    /// GoogleTest: `Broker::printLogWhen(&testing::Test::HasFailure)`.
    static void printLogWhen(bool (*hasFailed)()) noexcept;
    /// Prints the ends of all brokers' logs and removes their directories, for a watchdog that ends
    /// the process: no destructor runs then, and a test that hangs may hold a broker's lock.
    static void handleHang(std::ostream& out);

private:
    class Process;

    void writeConfiguration(BrokerOptions const& options) const;
    void makeCertificate() const;
    bool isUp();
    std::string logTail() const;

    std::string const program_;
    PortLease lease_;
    std::optional<PortLease> plainLease_; ///< if the other one is encrypted
    TempDir directory_;
    mutable std::mutex mutex_; ///< guards process_
    std::unique_ptr<Process> process_;
};

} // namespace mqtt::test
