#include "secure/a_secure_broker.hpp"

#include "support/eventually.hpp"
#include "support/socket.hpp"
#include "support/stack_dump.hpp"

#include <sstream>

#include <signal.h>

namespace {

using mqtt::ConnectionOptions;
using testing::HasSubstr;

/// A process that speaks no newer version of TLS than 1.2. It ends after a minute at the latest.
class OldTlsServer {
public:
    OldTlsServer(int port, Certificates const& files)
        : pid_(std::stoi(support::outputOf(
            "timeout 60 " ZYM_OPENSSL_PROGRAM " s_server -quiet -tls1_2 -accept 127.0.0.1:"
            + std::to_string(port) + " -cert " + files.certificate("server") + " -key "
            + files.key("server") + " </dev/null >/dev/null 2>&1 & echo $!"))) {}
    ~OldTlsServer() { ::kill(pid_, SIGTERM); }
    OldTlsServer(OldTlsServer const&) = delete;
    OldTlsServer& operator=(OldTlsServer const&) = delete;

private:
    pid_t const pid_;
};

class AFailureOfTls : public ASecureBroker {
protected:
    struct Case {
        char const* what;
        int port;
        ConnectionOptions options;
        Reason reason;
        /// Version 2.1 of the broker library has no more to say than this.
        Reason inVersion21 = Reason::NONE;
    };

    static void expectReasons(std::vector<Case> const& cases) {
        for (auto const& [what, port, options, reason, inVersion21] : cases) {
            auto const failure = failureAt(port, options);
            bool const isCommon = LIBMOSQUITTO_MINOR > 0 && failure.reason == inVersion21;
            EXPECT_TRUE(failure.reason == reason || isCommon) << what << "\n" << failure;
            EXPECT_EQ(failure.peer, "127.0.0.1:" + std::to_string(port)) << what;
        }
    }
};

TEST_F(AFailureOfTls, ToTrustTheBrokerHasAReason) {
    auto wrongAuthority = trusting();
    wrongAuthority.tls->caFile = files_.certificate("other");
    ConnectionOptions ofTheSystem;
    ofTheSystem.tls.emplace();
    expectReasons({
        {"other authority", certificates_.port(), wrongAuthority, Reason::CERTIFICATE_NOT_TRUSTED},
        {"system's authorities", certificates_.port(), ofTheSystem,
         Reason::CERTIFICATE_NOT_TRUSTED},
        {"expired", expired_.port(), trusting(), Reason::CERTIFICATE_NOT_TRUSTED},
        {"other host", elsewhere_.port(), trusting(), Reason::HOST_NAME_MISMATCH,
         Reason::CERTIFICATE_NOT_TRUSTED},
    });
}

TEST_F(AFailureOfTls, ToBeTrustedByTheBrokerHasAReason) {
    ConnectionOptions wrongKey;
    wrongKey.tls.emplace().preSharedKey = {{Certificates::USER, "00ff"}};
    ConnectionOptions wrongIdentity;
    wrongIdentity.tls.emplace().preSharedKey = {{"nobody", Certificates::SHARED_KEY}};
    expectReasons({
        {"no certificate", clientCertificates_.port(), trusting(), Reason::TLS_CLIENT_REFUSED,
         Reason::CLOSED_BEFORE_ACCEPTANCE},
        {"of another authority", clientCertificates_.port(), withClientCertificate("stranger"),
         Reason::TLS_CLIENT_REFUSED, Reason::CLOSED_BEFORE_ACCEPTANCE},
        {"wrong key", sharedKey_.port(), wrongKey, Reason::TLS_CLIENT_REFUSED},
        {"wrong identity", sharedKey_.port(), wrongIdentity, Reason::TLS_CLIENT_REFUSED},
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
    support::PortLease const lease;
    OldTlsServer const server(lease.port(), files_);
    ASSERT_TRUE(support::eventually([&] { return support::connectTo(lease.port()).valid(); }));
    auto newest = trusting();
    newest.tls->minimumVersion = mqtt::Tls::Version::TLS_1_3;
    expectReasons({{"TLS 1.2", lease.port(), newest, Reason::TLS_VERSION}});
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
