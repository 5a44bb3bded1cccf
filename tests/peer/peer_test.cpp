// examples/peer.py and this library, each on either side.

#include "mqtt/test/broker.hpp"
#include "mqtt/test/recorder.hpp"
#include "mqtt/test/test_client.hpp"
#include "requestreply/sample_data.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/time_base.hpp>

#include <gmock/gmock.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using mqtt::MqttData;
using testing::ElementsAre;
using testing::MatchesRegex;
using zym::common::Uuid;
using Code = mqtt::RequestReply::ErrorCode;
using Error = mqtt::MqttClient::Error;

constexpr std::uint32_t TIMEOUT_S = 60;
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

/// The values that arrive on an endpoint.
template <class T>
class Reader final : public MqttData<T>::Subscriber, public mqtt::test::Recording<T> {
public:
    Reader(mqtt::MqttClient& client, mqtt::Topic const& topic) : data_(client, topic) {
        EXPECT_EQ(data_.subscribe(this, 0), Error::SUCCESS);
    }

    template <class Condition>
    bool waitFor(Condition const& condition) const {
        return this->entries_.waitFor(
            [&](auto const& all) { return !all.empty() && condition(all.back()); });
    }

    void onMqttData(T const& value, bool /*empty*/, int /*id*/) override { this->add(value); }

private:
    MqttData<T> data_;
};

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
        return communication.waitFor([&](auto const& status) { return status.state == state; });
    }

    Code doubleOf(unsigned int number, std::shared_ptr<NumberData> const& reply) {
        mqtt::RequestReplyClient caller(*client, "plant/tank", {}, "double");
        return caller.requestWait(Uuid(7), Uuid::NIL, std::make_shared<NumberData>(number), reply,
                                  TIMEOUT_S);
    }

    /// A request as it is, from a client with the identifier `x`.
    void send(std::string const& request) const {
        EXPECT_EQ(client->publish("plant/tank/double?\?/x", request, 2, false), Error::SUCCESS);
    }

    Reader<conv::CommunicationStatus> communication{*client, "plant/tank"};
    PythonProcess device{broker, "device plant/tank", "w"};
};

TEST_F(ADeviceInPython, ShowsItsStatusUntilItEnds) {
    Reader<conv::ServiceStatus> const status(*client, "plant/tank");
    EXPECT_TRUE(
        status.waitFor([](auto const& one) { return one.operating == 1 && one.health == 3; }));
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
    auto const reply = std::make_shared<NumberData>();
    EXPECT_EQ(doubleOf(21, reply), Code::SUCCESS);
    EXPECT_EQ(reply->number, 42U);
    EXPECT_EQ(doubleOf(LIMIT, reply), TOO_LARGE);
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
class AUserInPython : public WithABroker, private mqtt::RequestReplyServer::Listener {
protected:
    // Not in constructor and destructor: they change the type of this object while requests arrive.
    void SetUp() override {
        EXPECT_EQ(server_.subscribe(this, Uuid(31), std::make_shared<NumberData>()),
                  Error::SUCCESS);
        publish(conv::ServiceStatus{1, 3});
        publish(conv::CommunicationStatus{conv::ComState::CONNECTED, conv::UnixTime(12.5)});
        publish(std::vector<mqtt::Link>{{"plant/pump/motor"}, {"plant/pump/valve"}});
        publish(conv::Identification{"u", "m & s", "p", "0", "1", "big \"motor\"", "i", "2", "a\nb",
                                     "c"},
                "plant/pump/motor");
        publish(conv::Identification{}, "plant/pump/valve");
    }
    void TearDown() override { server_.release(); }

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
        MqttData<T> data(*client, topic);
        data.value = value;
        mqtt::MqttDataBase::Lock lock(data.mutex());
        EXPECT_EQ(data.send(/*wait=*/true, lock), Error::SUCCESS);
    }

    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& /*name*/, Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
              mqtt::RequestReplyData const& requestData, Code& error) override {
        auto const number = dynamic_cast<NumberData const&>(requestData).number;
        if (number >= LIMIT) {
            error = TOO_LARGE;
            return nullptr;
        }
        return std::make_shared<NumberData>(2 * number);
    }

    mqtt::RequestReplyServer server_{*client, "plant/pump", {}, "double"};
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
