#include "secure/a_secure_broker.hpp"

#include <algorithm>
#include <filesystem>

namespace {

using conv::ComState;

class AnEncryptedConnection : public ASecureBroker {};

TEST_F(AnEncryptedConnection, IsMadeWithEachWayToProveWhoOneIs) {
    struct Case {
        char const* what;
        int port;
        mqtt::ConnectionOptions options;
    };
    auto folder = trusting();
    folder.tls->caFile.clear();
    folder.tls->caFolder = files_.caFolder();
    auto newest = trusting();
    newest.tls->minimumVersion = mqtt::Tls::Version::TLS_1_3;
    auto encryptedKey = withClientCertificate("client");
    encryptedKey.tls->keyFile = files_.encryptedKey();
    encryptedKey.tls->keyPassword = [] { return Certificates::KEY_PASSWORD; };
    auto otherHost = trusting();
    otherHost.tls->insecureSkipHostNameCheck = true;
    mqtt::ConnectionOptions sharedKey;
    sharedKey.tls.emplace().preSharedKey = {{Certificates::USER, Certificates::SHARED_KEY}};
    for (auto const& [what, port, options] :
         {Case{"authority as a file", certificates_.port(), trusting()},
          Case{"authorities as a folder", certificates_.port(), folder},
          Case{"TLS 1.3", certificates_.port(), newest},
          Case{"own certificate", clientCertificates_.port(), withClientCertificate("client")},
          Case{"encrypted key", clientCertificates_.port(), encryptedKey},
          Case{"host name not checked", elsewhere_.port(), otherHost},
          Case{"pre-shared key", sharedKey_.port(), sharedKey}}) {
        SCOPED_TRACE(what);
        expectToWork(*client(port, options));
    }
}

TEST_F(AnEncryptedConnection, ReadsTheFilesAgainWithEachAttempt) {
    auto const copy = [&](std::string const& name) {
        for (std::string const ending : {".crt", ".key"}) {
            auto const target = files_.file("current" + ending);
            std::filesystem::copy_file(files_.file(name + ending), target + ".new",
                                       std::filesystem::copy_options::overwrite_existing);
            std::filesystem::rename(target + ".new", target);
        }
    };
    copy("stranger");
    auto const current = client(clientCertificates_.port(), withClientCertificate("current"));
    current->connect("", -1, 0);
    ASSERT_TRUE(
        mqtt::test::eventually([&] { return current->lastFailure().reason != Reason::NONE; }));
    copy("client");
    EXPECT_TRUE(mqtt::test::becomesConnected(*current)) << current->lastFailure();
}

TEST_F(AnEncryptedConnection, MayGetAnotherAuthorityWhileItIsDown) {
    auto options = trusting();
    options.tls->caFile = files_.certificate("other");
    auto const changed = client(certificates_.port(), options);
    changed->connect("", -1, 0);
    ASSERT_TRUE(mqtt::test::eventually(
        [&] { return changed->lastFailure().reason == Reason::CERTIFICATE_NOT_TRUSTED; }));
    changed->giveUp();
    ASSERT_TRUE(mqtt::test::eventually(
        [&] { return changed->communicationState() == ComState::DISCONNECTED; }));
    ASSERT_EQ(changed->setOptions(trusting()), Error::SUCCESS);
    expectToWork(*changed);
}

TEST_F(AnEncryptedConnection, ComesBackWithTheBroker) {
    mqtt::test::StateRecorder states;
    auto const back = client(certificates_.port(), trusting());
    back->registerListener(&states);
    ASSERT_EQ(back->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    broker_.kill();
    ASSERT_TRUE(states.waitFor(ComState::CONNECTION_LOST));
    EXPECT_EQ(back->lastFailure().reason, Reason::CLOSED_BY_BROKER) << back->lastFailure();
    broker_.start();
    EXPECT_TRUE(states.waitFor(ComState::CONNECTED));
    back->unregisterListener(&states);
}

/// A relay could not read the packets: it would take encrypted bytes for publications, and the
/// connections that it stands in would not be completed.
TEST_F(AnEncryptedConnection, HasNoRelayForAPublicationThatTheBrokerDoesNotTake) {
    constexpr unsigned connections = 6;
    mqtt::test::StateRecorder states;
    auto const strict = client(certificates_.port(), trusting());
    strict->registerListener(&states);
    ASSERT_EQ(strict->connect("", -1, WAIT_SECONDS), Error::SUCCESS);
    ASSERT_EQ(strict->publish("topic", std::string(MAX_PACKET_SIZE, 'x'), 1, false),
              Error::SUCCESS);
    ASSERT_TRUE(
        mqtt::test::eventually([&] { return strict->statistics().connections >= connections; }));
    strict->giveUp();
    auto const all = states.history();
    auto const completed = std::count(all.begin(), all.end(), ComState::CONNECTED);
    EXPECT_GE(static_cast<unsigned>(completed), connections - 1) << "the last one may be too new";
    EXPECT_EQ(strict->statistics().dropped.givenUp, 0U);
    strict->unregisterListener(&states);
}

} // namespace
