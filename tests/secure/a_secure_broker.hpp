#pragma once

#include "mqtt/test/broker.hpp"
#include "mqtt/test/port_lease.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "mqtt/test/watched.hpp"
#include "secure/certificates.hpp"

#include <mqtt/client.hpp>
#include <mqtt/connection_options.hpp>
#include <mqtt/log.hpp>

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

/// A broker without encryption at `port()`, and with it at ports of their own.
class ASecureBroker : public testing::Test {
protected:
    using Error = mqtt::MqttClient::Error;
    using Reason = mqtt::Failure::Reason;
    static constexpr unsigned WAIT_SECONDS = 30;

    ASecureBroker() {
        mqtt::setLogFunction(
            [this](mqtt::LogLevel, std::string const& line) {
                log_.change([&](std::string& all) { all += line + "\n"; });
            },
            mqtt::LogLevel::DETAIL);
    }
    /// Whatever a test does, no secret is in the log.
    ~ASecureBroker() override {
        mqtt::setLogFunction({}, mqtt::LogLevel::DETAIL);
        for (auto const* secret : {Certificates::PASSWORD, Certificates::KEY_PASSWORD,
                                   Certificates::SHARED_KEY, PAYLOAD}) {
            EXPECT_THAT(log_.copy(), testing::Not(testing::HasSubstr(secret)));
        }
    }

    /// A listener with a certificate, and with more lines of the configuration.
    static std::string listener(mqtt::test::PortLease const& lease, std::string const& lines) {
        return "listener " + std::to_string(lease.port()) + " 127.0.0.1\n" + lines;
    }
    std::string withCertificate(std::string const& name) const {
        return "cafile " + files_.certificate("ca") + "\ncertfile " + files_.certificate(name)
               + "\nkeyfile " + files_.key(name) + "\n";
    }

    /// A client that trusts the authority of the broker.
    mqtt::ConnectionOptions trusting() const {
        mqtt::ConnectionOptions options;
        options.tls.emplace().caFile = files_.certificate("ca");
        return options;
    }
    /// The same with a certificate of its own.
    mqtt::ConnectionOptions withClientCertificate(std::string const& name) const {
        auto options = trusting();
        options.tls->certificateFile = files_.certificate(name);
        options.tls->keyFile = files_.key(name);
        return options;
    }

    static std::unique_ptr<mqtt::MqttClient> client(int port,
                                                    mqtt::ConnectionOptions const& options) {
        return std::make_unique<mqtt::MqttClient>(mqtt::test::uniqueId(), false, "", "127.0.0.1",
                                                  port, false, options);
    }

    /// The failure of the first attempt.
    static mqtt::Failure failureAt(int port, mqtt::ConnectionOptions const& options) {
        auto const failing = client(port, options);
        failing->connect("", -1, 0);
        EXPECT_TRUE(
            mqtt::test::eventually([&] { return failing->lastFailure().reason != Reason::NONE; }));
        return failing->lastFailure();
    }

    void expectToWork(mqtt::MqttClient& working) {
        mqtt::test::MessageRecorder recorder;
        ASSERT_EQ(working.connect("", -1, WAIT_SECONDS), Error::SUCCESS) << working.lastFailure();
        ASSERT_EQ(working.subscribe("topic", &recorder, 0), Error::SUCCESS);
        ASSERT_EQ(working.publishWait("topic", PAYLOAD, 2, false, WAIT_SECONDS), Error::SUCCESS);
        EXPECT_TRUE(recorder.waitForPayload(PAYLOAD));
        EXPECT_EQ(working.disconnect(WAIT_SECONDS), Error::SUCCESS);
        EXPECT_EQ(working.lastFailure().reason, Reason::NONE) << working.lastFailure();
        working.release(&recorder);
    }

    static constexpr char const* PAYLOAD = "PAYLOAD-76";
    static constexpr std::size_t MAX_PACKET_SIZE = 20'000;

    Certificates const files_;
    mqtt::test::PortLease certificates_;       ///< clients need none
    mqtt::test::PortLease clientCertificates_; ///< clients need one
    mqtt::test::PortLease elsewhere_;
    mqtt::test::PortLease expired_;
    mqtt::test::PortLease sharedKey_;
    mqtt::test::Broker broker_{[this] {
        mqtt::test::BrokerOptions options;
        options.extraLines = {
            "max_packet_size " + std::to_string(MAX_PACKET_SIZE),
            listener(certificates_, withCertificate("server")),
            listener(clientCertificates_, withCertificate("server") + "require_certificate true"),
            listener(elsewhere_, withCertificate("elsewhere")),
            listener(expired_, withCertificate("expired")),
        };
        return options;
    }()};
    /// With pre-shared keys Mosquitto 2.1 has no TLS 1.3, at any listener.
    mqtt::test::Broker sharedKeyBroker_{[this] {
        mqtt::test::BrokerOptions options;
        options.extraLines = {
            listener(sharedKey_, "psk_hint hint\nuse_identity_as_username false"),
            "psk_file " + files_.sharedKeys(),
        };
        return options;
    }()};
    mqtt::test::Watched<std::string> log_;
};
