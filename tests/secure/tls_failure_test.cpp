#include "secure/a_secure_broker.hpp"

#include "net/socket.hpp"

#include <sstream>

namespace {

using mqtt::ConnectionOptions;
using testing::HasSubstr;

class AFailureOfTls : public ASecureBroker {
protected:
    struct Case {
        char const* what;
        int port;
        ConnectionOptions options;
        Reason reason;
        /// Also possible: version 2.1 of the broker library says less, and the broker's last bytes
        /// may be lost.
        Reason other = Reason::NONE;
    };

    static void expectReasons(std::vector<Case> const& cases) {
        for (auto const& [what, port, options, reason, other] : cases) {
            auto const failure = failureAt(port, options);
            auto const orElse = other == Reason::NONE ? reason : other;
            EXPECT_THAT(failure.reason, testing::AnyOf(reason, orElse)) << what << "\n" << failure;
            EXPECT_EQ(failure.peer, "127.0.0.1:" + std::to_string(port)) << what;
        }
    }
};

TEST_F(AFailureOfTls, ToTrustTheBrokerHasAReason) {
    auto wrongAuthority = trusting();
    wrongAuthority.tls->caFile = files_.certificate("other");
    ConnectionOptions ofTheSystem;
    ofTheSystem.tls.emplace();
    auto const otherHost =
        LIBMOSQUITTO_MINOR == 0 ? Reason::HOST_NAME_MISMATCH : Reason::CERTIFICATE_NOT_TRUSTED;
    expectReasons({
        {"other authority", certificates_.port(), wrongAuthority, Reason::CERTIFICATE_NOT_TRUSTED},
        {"system's authorities", certificates_.port(), ofTheSystem,
         Reason::CERTIFICATE_NOT_TRUSTED},
        {"expired", expired_.port(), trusting(), Reason::CERTIFICATE_NOT_TRUSTED},
        {"other host", elsewhere_.port(), trusting(), otherHost},
    });
}

TEST_F(AFailureOfTls, ToBeTrustedByTheBrokerHasAReason) {
    ConnectionOptions wrongKey;
    wrongKey.tls.emplace().preSharedKey = {{Certificates::USER, "00ff"}};
    ConnectionOptions wrongIdentity;
    wrongIdentity.tls.emplace().preSharedKey = {{"nobody", Certificates::SHARED_KEY}};
    constexpr auto refused = Reason::TLS_CLIENT_REFUSED;
    constexpr auto closed = Reason::CLOSED_BEFORE_ACCEPTANCE;
    auto const port = clientCertificates_.port();
    expectReasons({
        {"no certificate", port, trusting(), refused, closed},
        {"of another authority", port, withClientCertificate("stranger"), refused, closed},
        {"wrong key", sharedKey_.port(), wrongKey, refused},
        {"wrong identity", sharedKey_.port(), wrongIdentity, refused},
    });
}

TEST_F(AFailureOfTls, AtAnotherProtocolHasAReason) {
    expectReasons({
        {"TLS at a port without", broker_.port(), trusting(), Reason::NO_TLS_AT_BROKER,
         Reason::CLOSED_BEFORE_ACCEPTANCE},
        {"no TLS at a port with", certificates_.port(), {}, Reason::CLOSED_BEFORE_ACCEPTANCE},
    });
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
    struct FileCase {
        char const* what;
        std::function<void(mqtt::Tls&)> change;
        std::string file;
        char const* cause;
    };
    auto const missing = files_.file("missing");
    auto const garbage = files_.garbage();
    for (auto const& [what, change, file, cause] : std::vector<FileCase>{
             {"no authority", [&](auto& tls) { tls.caFile = missing; }, missing, "No such file"},
             {"no folder", [&](auto& tls) { tls.caFolder = missing; }, missing, "No such file"},
             {"no certificate", [&](auto& tls) { tls.certificateFile = missing; }, missing,
              "No such file"},
             {"no key", [&](auto& tls) { tls.keyFile = missing; }, missing, "No such file"},
             {"garbage as authority", [&](auto& tls) { tls.caFile = garbage; }, garbage, "OpenSSL"},
             {"garbage as certificate", [&](auto& tls) { tls.certificateFile = garbage; }, garbage,
              "OpenSSL"},
             {"garbage as key", [&](auto& tls) { tls.keyFile = garbage; }, garbage, "OpenSSL"},
             {"key of another", [&](auto& tls) { tls.keyFile = files_.key("stranger"); },
              files_.key("stranger"), "mismatch"},
             {"key without its password", [&](auto& tls) { tls.keyFile = files_.encryptedKey(); },
              files_.encryptedKey(), "OpenSSL"},
             {"wrong password",
              [&](auto& tls) {
                  tls.keyFile = files_.encryptedKey();
                  tls.keyPassword = [] { return "wrong"; };
              },
              files_.encryptedKey(), "OpenSSL"},
             {"function for the password that throws",
              [&](auto& tls) {
                  tls.keyFile = files_.encryptedKey();
                  tls.keyPassword = []() -> std::string { throw std::runtime_error("x"); };
              },
              files_.encryptedKey(), "OpenSSL"},
         }) {
        SCOPED_TRACE(what);
        auto options = withClientCertificate("client");
        change(*options.tls);
        auto const failure = failureAt(clientCertificates_.port(), options);
        EXPECT_EQ(failure.reason, Reason::TLS_FILES);
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
