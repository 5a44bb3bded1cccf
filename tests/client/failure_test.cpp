// Why attempts to connect fail and connections end: from the results of the broker library to the
// sentence for an engineer.

#include "client/client_on_a_script.hpp"

#include "mqtt/test/watched.hpp"
#include "support/log_lines.hpp"

#include <mqtt/connection_options.hpp>
#include <mqtt/failure.hpp>

#include <gmock/gmock.h>

#include <cerrno>
#include <set>
#include <sstream>
#include <stdexcept>

#include <netdb.h>

namespace {

using conv::ComState;
using mqtt::Failure;
using Error = mqtt::MqttClient::Error;
using Operation = support::StandIn::Operation;
using Reason = Failure::Reason;
using testing::EndsWith;
using testing::HasSubstr;

std::string textOf(Failure const& failure) {
    std::ostringstream text;
    text << failure;
    return text.str();
}

TEST(TheReasonOfAFailure, HasANameAndASentence) {
    std::set<std::string> names;
    std::set<std::string> sentences;
    for (int value = 0; value <= static_cast<int>(Reason::OTHER); ++value) {
        Failure failure;
        failure.reason = static_cast<Reason>(value);
        std::ostringstream name;
        name << failure.reason;
        names.insert(name.str());
        sentences.insert(textOf(failure));
    }
    auto const count = static_cast<std::size_t>(Reason::OTHER) + 1;
    EXPECT_EQ(names.size(), count);
    EXPECT_EQ(sentences.size(), count);
    EXPECT_EQ(names.count("UNKNOWN"), 0U);
    Failure other;
    other.reason = static_cast<Reason>(200);
    EXPECT_EQ(textOf(other), "unknown failure");
}

class AFailure : public AClientOnAScript {};

TEST_F(AFailure, ToConnectHasTheReasonOfTheSystem) {
    struct Case {
        int code;
        int systemError;
        Reason reason;
        char const* text;
    };
    for (auto const& [code, systemError, reason, text] : {
             Case{14, ECONNREFUSED, Reason::UNREACHABLE, "Connection refused"},
             Case{14, EHOSTUNREACH, Reason::UNREACHABLE, "No route to host"},
             Case{14, EMFILE, Reason::TOO_MANY_DESCRIPTORS, "Too many open files"},
             Case{14, ENFILE, Reason::TOO_MANY_DESCRIPTORS, "in system"},
             Case{15, EAI_NONAME, Reason::NAME_NOT_RESOLVED, "Name or service not known"},
             Case{1, 0, Reason::OTHER, "Out of memory"},
         }) {
        SCOPED_TRACE(text);
        auto const client = idleClient();
        support::StandIn::last()->setHook(Operation::CONNECT,
                                          [result = code, error = systemError](auto const&) {
                                              errno = error;
                                              return result;
                                          });
        EXPECT_EQ(client->connect("", -1, 0), static_cast<Error>(code));
        EXPECT_EQ(errno, systemError);
        auto const failure = client->lastFailure();
        EXPECT_EQ(failure.reason, reason);
        EXPECT_EQ(failure.systemError, systemError);
        EXPECT_EQ(failure.peer, "host:1883");
        EXPECT_THAT(textOf(failure), HasSubstr(text));
    }
}

TEST_F(AFailure, IsTheRefusalInTheBrokersAnswer) {
    int code = 0;
    for (Reason const reason :
         {Reason::REFUSED_PROTOCOL, Reason::REFUSED_IDENTIFIER, Reason::REFUSED_UNAVAILABLE,
          Reason::REFUSED_CREDENTIALS, Reason::REFUSED_NOT_AUTHORISED, Reason::NOT_MQTT}) {
        SCOPED_TRACE(++code);
        auto const client = idleClient();
        support::StandIn::last()->setConnack(code);
        EXPECT_EQ(client->connect("", -1, 0), Error::TIMEOUT);
        EXPECT_TRUE(mqtt::test::eventually(
            [&] { return client->communicationState() == ComState::CONNECTION_LOST; }));
        EXPECT_EQ(client->lastFailure().reason, reason);
    }
}

TEST_F(AFailure, IsKnownWhenTheListenerIsToldOfTheLoss) {
    struct Case {
        int code;
        Reason reason;
    };
    mqtt::test::Watched<Reason> told(Reason::NONE);
    mqtt::test::StateRecorder listener([&](ComState state) {
        if (state == ComState::CONNECTION_LOST) {
            told.change([&](Reason& reason) { reason = client_->lastFailure().reason; });
        }
    });
    client_->registerListener(&listener);
    connect();
    for (auto const [code, expected] :
         {Case{7, Reason::CLOSED_BY_BROKER}, Case{19, Reason::KEEP_ALIVE_EXPIRED},
          Case{2, Reason::NOT_MQTT}, Case{21, Reason::NOT_MQTT}}) {
        SCOPED_TRACE(code);
        told.change([](Reason& reason) { reason = Reason::NONE; });
        auto const before = connections();
        script_->loseConnection(code);
        ASSERT_TRUE(told.waitFor([](Reason reason) { return reason != Reason::NONE; }));
        EXPECT_EQ(told.copy(), expected);
        ASSERT_TRUE(mqtt::test::eventually([&] { return connections() > before; }));
        EXPECT_EQ(client_->lastFailure().reason, expected) << "it stays";
    }
    client_->unregisterListener(&listener);
}

class AFailureBeforeAcceptance : public AFailure, public testing::WithParamInterface<int> {};

TEST_P(AFailureBeforeAcceptance, IsNotALoss) {
    beginToConnect();
    script_->loseConnection(GetParam());
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTION_LOST));
    EXPECT_EQ(client_->lastFailure().reason, Reason::CLOSED_BEFORE_ACCEPTANCE);
}

// 8: a reset during the handshake of TLS, of which the TLS library says nothing.
INSTANTIATE_TEST_SUITE_P(Codes, AFailureBeforeAcceptance, testing::Values(7, 8));

TEST_F(AFailure, IsAFunctionForTheCredentialsThatThrows) {
    mqtt::ConnectionOptions options;
    std::atomic<int> calls{0};
    options.credentialsFunction = [&]() -> mqtt::Credentials {
        if (++calls == 1) {
            throw std::runtime_error("secret");
        }
        return {"name", "secret"};
    };
    ASSERT_EQ(client_->setOptions(options), Error::SUCCESS);
    ASSERT_EQ(client_->connect("elsewhere", 4, WAIT_SECONDS), Error::AUTH);
    EXPECT_EQ(client_->lastFailure().reason, Reason::CREDENTIALS_FUNCTION);
    EXPECT_THAT(textOf(client_->lastFailure()), testing::Not(HasSubstr("secret")));
    ASSERT_TRUE(states_.waitFor(ComState::CONNECTED)) << "it goes on trying";
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(topics(Operation::CONNECT), std::vector<std::string>{"elsewhere"});
    EXPECT_EQ(script_->count(Operation::RECONNECT), 0U) << "of an address that it does not have";
}

TEST_F(AFailure, IsAFunctionForTheCredentialsWhoseResultCannotBeSent) {
    mqtt::ConnectionOptions options;
    options.credentialsFunction = [] { return mqtt::Credentials{"", "secret"}; };
    ASSERT_EQ(client_->setOptions(options), Error::SUCCESS);
    EXPECT_EQ(client_->connect("", -1, 0), Error::AUTH);
    EXPECT_EQ(client_->lastFailure().reason, Reason::CREDENTIALS_FUNCTION);
    EXPECT_EQ(script_->count(Operation::CONNECT), 0U);
}

TEST_F(AFailure, IsLoggedWithTheEventsAroundIt) {
    support::LogLines const lines(mqtt::LogLevel::INFO);
    connect();
    reconnect();
    EXPECT_THAT(lines.copy(),
                testing::ElementsAre(
                    EndsWith(": connects to host:1883"), EndsWith(": connected to host:1883"),
                    HasSubstr(": connection lost: host:1883: the broker has closed"),
                    EndsWith(": next attempt to connect in 500 ms"),
                    EndsWith(": connects to host:1883"), EndsWith(": connected to host:1883")));
}

mqtt::ConnectionOptions withCredentials(std::string const& user, std::string const& password) {
    mqtt::ConnectionOptions options;
    options.credentials = {{user, password}};
    return options;
}

mqtt::ConnectionOptions withTls(std::function<void(mqtt::Tls&)> const& change) {
    mqtt::ConnectionOptions options;
    change(options.tls.emplace());
    return options;
}

mqtt::ConnectionOptions withSharedKey(std::string const& identity, std::string const& key) {
    return withTls([&](auto& tls) { tls.preSharedKey = {{identity, key}}; });
}

TEST(TheConnectionOptions, AreRefusedIfTheyContradictEachOther) {
    struct Case {
        char const* what;
        mqtt::ConnectionOptions options;
    };
    std::string const zero("a\0b", 3);
    auto withFunctionToo = withCredentials("name", "password");
    withFunctionToo.credentialsFunction = [] { return mqtt::Credentials{"name", "password"}; };
    auto withAuthorityToo = withSharedKey("name", "ab");
    withAuthorityToo.tls->caFile = "file";
    auto const id = mqtt::test::uniqueId();
    mqtt::MqttClient client(id, false, "", "host", 1883, false);
    for (auto const& [what, options] : {
             Case{"no user name", withCredentials("", "password")},
             Case{"zero byte in a name", withCredentials(zero, "password")},
             Case{"zero byte in a password", withCredentials("name", zero)},
             Case{"name that is not UTF-8", withCredentials("\xff", "password")},
             Case{"long password", withCredentials("name", std::string(65'536, 'x'))},
             Case{"credentials and a function", withFunctionToo},
             Case{"certificate without key", withTls([](auto& t) { t.certificateFile = "file"; })},
             Case{"key without certificate", withTls([](auto& t) { t.keyFile = "file"; })},
             Case{"password without key",
                  withTls([](auto& t) { t.keyPassword = [] { return "x"; }; })},
             Case{"pre-shared key that is not hexadecimal", withSharedKey("name", "xy")},
             Case{"half a byte of a pre-shared key", withSharedKey("name", "abc")},
             Case{"pre-shared key without identity", withSharedKey("", "ab")},
             Case{"pre-shared key and authorities", withAuthorityToo},
         }) {
        SCOPED_TRACE(what);
        EXPECT_EQ(client.setOptions(options), Error::INVALID_PARAMETER);
        EXPECT_THROW(mqtt::MqttClient(id, false, "", "host", 1883, false, options),
                     std::invalid_argument);
    }
    EXPECT_EQ(client.setOptions({}), Error::SUCCESS);
}

TEST(TheConnectionOptions, KeepTheKindOfEncryption) {
    mqtt::MqttClient client(mqtt::test::uniqueId(), false, "", "host", 1883, false);
    EXPECT_EQ(client.setOptions(withTls([](auto&) {})), Error::SUCCESS);
    EXPECT_EQ(client.setOptions(withTls([](auto& tls) { tls.caFile = "other"; })), Error::SUCCESS);
    EXPECT_EQ(client.setOptions({}), Error::INVALID_PARAMETER);
    EXPECT_EQ(client.setOptions(withSharedKey("name", "ab")), Error::INVALID_PARAMETER);
}

} // namespace
