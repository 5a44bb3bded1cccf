#include "secure/a_secure_broker.hpp"

#include "net/socket.hpp"

#include <sstream>

namespace {

using mqtt::ConnectionOptions;
using testing::HasSubstr;

class AFailureOfTls : public ASecureBroker {};

TEST_F(AFailureOfTls, HasAReason) {
    struct Case {
        char const* what;
        int port;
        ConnectionOptions options;
        Reason reason;
        /// Also possible: version 2.1 of the broker library says less, and the broker's last bytes
        /// may be lost.
        Reason other = Reason::NONE;
    };
    auto wrongAuthority = trusting();
    wrongAuthority.tls->caFile = files_.certificate("other");
    ConnectionOptions ofTheSystem;
    ofTheSystem.tls.emplace();
    ConnectionOptions wrongKey;
    wrongKey.tls.emplace().preSharedKey = {{Certificates::USER, "00ff"}};
    ConnectionOptions wrongIdentity;
    wrongIdentity.tls.emplace().preSharedKey = {{"nobody", Certificates::SHARED_KEY}};
    constexpr auto notTrusted = Reason::CERTIFICATE_NOT_TRUSTED;
    constexpr auto otherHost = LIBMOSQUITTO_MINOR == 0 ? Reason::HOST_NAME_MISMATCH : notTrusted;
    constexpr auto refused = Reason::TLS_CLIENT_REFUSED;
    constexpr auto closed = Reason::CLOSED_BEFORE_ACCEPTANCE;
    auto const own = certificates_.port();
    auto const mutual = clientCertificates_.port();
    for (auto const& [what, port, options, reason, other] : {
             Case{"other authority", own, wrongAuthority, notTrusted},
             Case{"system's authorities", own, ofTheSystem, notTrusted},
             Case{"expired", expired_.port(), trusting(), notTrusted},
             Case{"other host", elsewhere_.port(), trusting(), otherHost},
             Case{"no certificate", mutual, trusting(), refused, closed},
             Case{"of another authority", mutual, withClientCertificate("stranger"), refused,
                  closed},
             Case{"wrong key", sharedKey_.port(), wrongKey, refused},
             Case{"wrong identity", sharedKey_.port(), wrongIdentity, refused},
             Case{"TLS at a port without", broker_.port(), trusting(), Reason::NO_TLS_AT_BROKER,
                  closed},
             Case{"no TLS at a port with", own, {}, closed},
         }) {
        auto const failure = failureAt(port, options);
        auto const orElse = other == Reason::NONE ? reason : other;
        EXPECT_THAT(failure.reason, testing::AnyOf(reason, orElse)) << what << "\n" << failure;
        EXPECT_EQ(failure.peer, "127.0.0.1:" + std::to_string(port)) << what;
    }
}

TEST_F(AFailureOfTls, AtAServerWithAnOldVersionHasAReason) {
    mqtt::test::PortLease const lease;
    auto const listener = mqtt::test::listenOn(lease.port(), 1);
    auto const failing = client(lease.port(), trusting());
    failing->connect("", -1, 0);
    auto const server = mqtt::test::acceptFrom(listener);
    std::string const alertProtocolVersion("\x15\x03\x03\0\2\2\x46", 7); // fatal, 70
    ASSERT_TRUE(mqtt::test::sendAll(server, alertProtocolVersion));
    EXPECT_TRUE(mqtt::test::eventually([&] {
        return failing->lastFailure().reason == Reason::TLS_VERSION;
    })) << failing->lastFailure();
}

TEST_F(AFailureOfTls, ToReadOwnFilesNamesTheFile) {
    using mqtt::Tls;
    struct Case {
        std::string Tls::*setting;
        std::string file;
        char const* cause;
        std::function<std::string()> keyPassword{};
    };
    auto const missing = files_.file("missing");
    auto const garbage = files_.garbage();
    auto const encrypted = files_.encryptedKey();
    auto const wrongPassword = [] { return "wrong"; };
    auto const throws = []() -> std::string { throw std::runtime_error("x"); };
    for (auto const& [setting, file, cause, keyPassword] : {
             Case{&Tls::caFile, missing, "No such file"},
             Case{&Tls::caFolder, missing, "No such file"},
             Case{&Tls::certificateFile, missing, "No such file"},
             Case{&Tls::keyFile, missing, "No such file"},
             Case{&Tls::caFile, garbage, "OpenSSL"},
             Case{&Tls::certificateFile, garbage, "OpenSSL"},
             Case{&Tls::keyFile, garbage, "OpenSSL"},
             Case{&Tls::keyFile, files_.key("stranger"), "mismatch"},
             Case{&Tls::keyFile, encrypted, "OpenSSL"}, // needs a password
             Case{&Tls::keyFile, encrypted, "OpenSSL", wrongPassword},
             Case{&Tls::keyFile, encrypted, "OpenSSL", throws},
         }) {
        auto options = withClientCertificate("client");
        (*options.tls).*setting = file;
        options.tls->keyPassword = keyPassword;
        auto const failure = failureAt(clientCertificates_.port(), options);
        EXPECT_EQ(failure.reason, Reason::TLS_FILES) << file << ", " << cause;
        std::ostringstream text;
        text << failure;
        EXPECT_THAT(text.str(), testing::AllOf(HasSubstr(file), HasSubstr(cause)));
    }
}

TEST_F(AFailureOfTls, NeverLeadsToAConnectionWithoutEncryption) {
    auto options = trusting();
    options.tls->caFile = files_.file("missing");
    // At the port without encryption: a client that gave TLS up would get connected.
    auto const failing = client(broker_.port(), options);
    EXPECT_EQ(failing->connect("", -1, 0), Error::TLS);
    auto const hasFailedTwice = [](std::string const& log) {
        std::string const line = "next attempt to connect in ";
        return log.find(line, log.find(line) + 1) != std::string::npos;
    };
    EXPECT_TRUE(log_.waitFor(hasFailedTwice));
    EXPECT_EQ(failing->communicationState(), conv::ComState::CONNECTING);
}

} // namespace
