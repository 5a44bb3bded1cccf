// examples/peer.py and this library, each on either side.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/service.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>

#include <gmock/gmock.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using zym::common::Uuid;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;

constexpr unsigned TIMEOUT_S = 60;
constexpr std::chrono::seconds TIMEOUT{TIMEOUT_S};
constexpr Code TOO_LARGE{17};
constexpr unsigned int LIMIT = 1000;

/// A process of the peer in Python.
class PythonProcess {
public:
    /// @param mode as for `popen`
    PythonProcess(mqtt::test::Broker const& broker, std::string const& arguments, char const* mode)
        : pipe_(popen((ZYM_PYTHON_PEER " " + broker.host() + ":" + std::to_string(broker.port())
                       + " " + arguments)
                          .c_str(),
                      mode)) {
        if (pipe_ == nullptr) {
            throw std::runtime_error("The peer in Python does not start");
        }
    }
    ~PythonProcess() { end(); }
    PythonProcess(PythonProcess const&) = delete;
    PythonProcess& operator=(PythonProcess const&) = delete;

    /// Its output to the end.
    std::string output() const {
        std::string text;
        for (int next = std::fgetc(pipe_); next != EOF; next = std::fgetc(pipe_)) {
            text += static_cast<char>(next);
        }
        return text;
    }

    /// Closes the pipe and waits for the process.
    /// @return its exit status
    int end() {
        int const status = pipe_ == nullptr ? 0 : pclose(pipe_);
        pipe_ = nullptr;
        return status;
    }

private:
    std::FILE* pipe_;
};

struct Number {
    unsigned number = 0;
};
ZYM_MQTT_FIELDS(Number, number)
using Doubling = mqtt::Service<Number, Number>;

class WithABroker : public testing::Test {
protected:
    mqtt::test::Broker broker;
    std::unique_ptr<mqtt::MqttClient> client = mqtt::test::testClient(broker);
};

/// A device in Python, and this library as its user.
class ADeviceInPython : public WithABroker {
protected:
    ADeviceInPython() { EXPECT_TRUE(awaitState(conv::ComState::CONNECTED)); }

    bool awaitState(conv::ComState state) const {
        return publishes<conv::CommunicationStatus>(
            [&](auto const& status) { return status.state == state; });
    }

    /// Whether such a value is on its topic, or arrives there.
    template <class T>
    bool publishes(std::function<bool(T const& value)> const& isExpected) const {
        T value;
        return mqtt::MqttData<T>(*client, "plant/tank").waitFor(value, isExpected, TIMEOUT)
               == Error::SUCCESS;
    }

    mqtt::Result<Number> doubleOf(unsigned number) const {
        Doubling const service{"plant/tank", "double"};
        return mqtt::Caller(*client, service, mqtt::ClientId(Uuid(7)), mqtt::ServerId())
            .callWait({number}, TIMEOUT);
    }

    /// A request as it is, from a client with the identifier `x`.
    void send(std::string const& request) const {
        EXPECT_EQ(client->publish("plant/tank/double?\?/x", request, 2, false), Error::SUCCESS);
    }

    PythonProcess device{broker, "device plant/tank", "w"};
};

TEST_F(ADeviceInPython, ShowsItsStatusUntilItEnds) {
    EXPECT_TRUE(publishes<conv::ServiceStatus>(
        [](auto const& status) { return status.operating == 1 && status.health == 3; }));
    EXPECT_EQ(device.end(), 0);
    EXPECT_TRUE(awaitState(conv::ComState::DISCONNECTED));
}

TEST_F(ADeviceInPython, IsDiscovered) {
    mqtt::ServiceDiscovererMqtt discoverer(*client, "plant/tank");
    ASSERT_TRUE(discoverer.discoverSync(TIMEOUT_S, true));
    ASSERT_EQ(discoverer.links().size(), 1U);
    EXPECT_EQ(discoverer.links()[0].id, "plant/tank/sensor");
    EXPECT_EQ(discoverer.entities()[0].uuid, Uuid(31).to_string());
    EXPECT_EQ(discoverer.entities()[0].name, "sensor");
}

TEST_F(ADeviceInPython, AnswersRequests) {
    EXPECT_EQ(doubleOf(21).value().number, 42U);
    EXPECT_EQ(doubleOf(LIMIT).code(), TOO_LARGE);
}

TEST_F(ADeviceInPython, DropsRequestsThatItCannotRead) {
    mqtt::test::MessageRecorder replies;
    ASSERT_EQ(client->subscribe("plant/tank/double?=/x", &replies, 0), Error::SUCCESS);
    for (std::string const request :
         {"", "{", "[]", "7", "\xff", R"({"number": 1})", R"({"$reqId": 1})",
          R"({"$reqId": true, "number": 1})", R"({"$reqId": 1.0, "number": 1})",
          R"({"$reqId": -1, "number": 1})", R"({"$reqId": 4294967296, "number": 1})"}) {
        send(request);
    }
    send(std::string(100000, '['));
    send(R"({"$reqId": 5, "number": 1, "$reqId": 6})"); // the first one counts
    ASSERT_TRUE(replies.waitForCount(1));
    EXPECT_THAT(replies.payloads(), ElementsAre(R"({"$reqId": 5, "$err": 1, "number": 2})"));
    client->release(&replies);
}

TEST_F(ADeviceInPython, TellsItsTime) {
    mqtt::SynchronizedTimeBaseMqttProxy proxy(*client, "plant/tank", Uuid(7), nullptr);
    ASSERT_TRUE(proxy.synchronize(Uuid(31), TIMEOUT_S));
    // The device tells the time of day, this library's own clock begins when the machine starts.
    EXPECT_NEAR(proxy.timeBase(), static_cast<double>(std::time(nullptr)), TIMEOUT_S);
}

/// A device of this library, and Python as its user.
class AUserInPython : public WithABroker {
protected:
    AUserInPython() {
        EXPECT_EQ(server_.result(), Error::SUCCESS);
        publish(conv::ServiceStatus{1, 3});
        publish(conv::CommunicationStatus{conv::ComState::CONNECTED, conv::UnixTime(12.5)});
        publish(std::vector<mqtt::Link>{{"plant/pump/motor"}, {"plant/pump/valve"}});
        publish(conv::Identification{"u", "m & s", "p", "0", "1", "big \"motor\"", "i", "2", "a\nb",
                                     "c"},
                "plant/pump/motor");
        publish(conv::Identification{}, "plant/pump/valve");
    }

    /// What a command of the peer prints.
    std::string output(std::string const& arguments) {
        return PythonProcess(broker, arguments, "r").output();
    }

    std::string call(std::string const& request) {
        return output("call plant/pump/" + Uuid(31).base64URL() + "/double '" + request + "'");
    }

private:
    template <class T>
    void publish(T const& value, mqtt::Topic const& topic = "plant/pump") {
        EXPECT_EQ(mqtt::MqttData<T>(*client, topic).publishWait(value), Error::SUCCESS);
    }

    mqtt::Server<Number, Number> const server_{*client, Doubling{"plant/pump", "double"},
                                               mqtt::ServerId(Uuid(31)),
                                               [](Number const& request) -> mqtt::Result<Number> {
                                                   if (request.number >= LIMIT) {
                                                       return TOO_LARGE;
                                                   }
                                                   return Number{2 * request.number};
                                               }};
};

TEST_F(AUserInPython, ReadsAStatus) {
    EXPECT_EQ(output("read plant/pump/status"), "{\"operating\": 1, \"health\": 3}\n");
    EXPECT_EQ(output("read plant/pump/communication"), "{\"state\": 2, \"since\": 12.5}\n");
}

TEST_F(AUserInPython, DiscoversEntities) {
    EXPECT_EQ(output("discover plant/pump"),
              R"({"plant/pump/motor": {"uuid": "u", "manufacturer": "m & s", "model": "p", )"
              R"("serial": "0", "physicalName": "1", "name": "big \"motor\"", "interface": "i", )"
              R"("version": "2", "location": "a\nb", "contact": "c"}, )"
              R"("plant/pump/valve": {"uuid": "", "manufacturer": "", "model": "", )"
              R"("serial": "", "physicalName": "", "name": "", "interface": "", )"
              R"("version": "", "location": "", "contact": ""}})"
              "\n");
}

TEST_F(AUserInPython, CallsAService) {
    EXPECT_THAT(call(R"({"number": 21})"),
                MatchesRegex(R"(\{"\$reqId": [0-9]+, "\$err": 1, "number": 42\})"
                             "\n"));
    EXPECT_THAT(call(R"({"number": 1000})"), MatchesRegex(R"(\{"\$reqId": [0-9]+, "\$err": 17\})"
                                                          "\n"));
}

} // namespace
