// docs/wire-format.md shows what the library writes. A box there is a fenced block with a language
// and a name, "```json reply".

#include "data/documents.hpp"
#include "mqtt/test/test_client.hpp"
#include "requestreply/endpoint.hpp"
#include "requestreply/sample_data.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>
#include <mqtt/time_base.hpp>

#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

using mqtt::Link;
using mqtt::RequestReply;
using zym::common::Uuid;
using Boxes = std::map<std::string, std::string>;

Uuid const SERVER(std::string("01234567-89ab-cdef-0123-456789abcdef"));

/// The named boxes of the page, by their whole heading.
Boxes boxesOfThePage() {
    std::ifstream page(ZYM_MQTT_WIRE_FORMAT_PAGE);
    EXPECT_TRUE(page.is_open()) << ZYM_MQTT_WIRE_FORMAT_PAGE;
    Boxes boxes;
    std::string line;
    while (std::getline(page, line)) {
        if (line.rfind("```", 0) != 0) {
            continue;
        }
        auto const heading = line.substr(3);
        std::string body;
        while (std::getline(page, line) && line != "```") {
            body += (body.empty() ? "" : "\n") + line;
        }
        EXPECT_TRUE(boxes.emplace(heading, body).second) << heading << " is there twice";
    }
    return boxes;
}

conv::Identification const IDENTIFICATION{SERVER.to_string(),
                                          "Pumps & Sons",
                                          "P-200",
                                          "0042",
                                          "M1",
                                          "main \"cold\" pump",
                                          "pump/2",
                                          "1.4.0",
                                          "hall 3\nnorth wall",
                                          "C:\\keys\tdesk 7"};

RequestReply::Request request(std::uint32_t id, std::shared_ptr<mqtt::RequestReplyData> data) {
    RequestReply::Request result;
    result.requestId = id;
    result.data = std::move(data);
    return result;
}

RequestReply::Reply reply(std::uint32_t id, RequestReply::ErrorCode error,
                          std::shared_ptr<mqtt::RequestReplyData> data) {
    RequestReply::Reply result(request(id, std::move(data)));
    result.error = error;
    return result;
}

Boxes documents() {
    using ErrorCode = RequestReply::ErrorCode;
    using Links = std::vector<Link>;
    return {
        {"json communication-status",
         written(
             conv::CommunicationStatus{conv::ComState::CONNECTED, conv::UnixTime(1700000000.5)})},
        {"json communication-status without-time",
         written(conv::CommunicationStatus{conv::ComState::CONNECTION_LOST, conv::UnixTime()})},
        {"json identification", written(IDENTIFICATION)},
        {"json service-status", written(conv::ServiceStatus{1, 3})},
        {"json link", written(Link{"plant/pumps/1"})},
        {"json link-collection", written(Links{Link{"plant/pumps/1"}, Link{"plant/pumps/2"}})},
        {"json link-collection empty", written(Links{})},
        {"json request", written(request(4294967295U, std::make_shared<NumberData>(7)))},
        {"json request without-payload", written(request(42, mqtt::NO_DATA))},
        {"json reply",
         written(reply(4294967295U, ErrorCode::SUCCESS, std::make_shared<NumberData>(8)))},
        {"json reply without-listener", written(reply(42, ErrorCode::NO_LISTENER, nullptr))},
        {"json reply time-out", written(reply(42, ErrorCode::TIMEOUT, mqtt::NO_DATA))},
        {"json time-request",
         written(request(7, std::make_shared<mqtt::TimeSyncRequestData>(12.5)))},
        {"json time-reply",
         written(reply(7, ErrorCode::SUCCESS,
                       std::make_shared<mqtt::TimeSyncReplyData>(12.5, 1700.25)))},
        {"json bind-request",
         written(request(8, std::make_shared<mqtt::BindRequestData>("panels/1")))},
    };
}

class TheWireFormatPage : public testing::Test {
protected:
    template <class T>
    std::string topicOf() {
        return Endpoint<T>(*client_, "base").publishTopic();
    }

    Boxes topics() {
        Endpoint<RequestReply::Request> asking(*client_, "plant/pumps");
        asking.value.topic = "valve";
        asking.value.name = "open";
        asking.value.serverUuid = SERVER;
        asking.value.clientUuid = Uuid(1);
        Endpoint<RequestReply::Reply> answering(*client_, "plant/pumps");
        answering.value = RequestReply::Reply(asking.value);
        Endpoint<RequestReply::Request> brief(*client_, "x");
        brief.value.name = "n";
        brief.value.clientUuid = Uuid(1);
        Endpoint<RequestReply::Request> time(*client_, "plant");
        time.value.name = mqtt::TIME_SYNC_REQUEST_REPLY_NAME;
        time.value.serverUuid = SERVER;
        time.value.clientUuid = Uuid(1);
        return {
            {"text identifier", SERVER.base64URL()},
            {"text time-request-topic", time.publishTopic()},
            {"text request-topic", asking.publishTopic()},
            {"text server-subscription", asking.subscribeTopic()},
            {"text reply-topic", answering.publishTopic()},
            {"text short-request-topic", brief.publishTopic()},
        };
    }

private:
    std::unique_ptr<mqtt::MqttClient> client_ =
        mqtt::test::testClient("host", 1883, {/*persistent=*/false, /*connect=*/false});
};

TEST_F(TheWireFormatPage, ShowsWhatTheLibraryWrites) {
    auto expected = documents();
    expected.merge(topics());
    EXPECT_THAT(boxesOfThePage(), testing::ContainerEq(expected));
}

TEST_F(TheWireFormatPage, NamesTheLevelsOfTheStandardValues) {
    EXPECT_EQ(topicOf<conv::CommunicationStatus>(), "base/communication");
    EXPECT_EQ(topicOf<conv::Identification>(), "base/identification");
    EXPECT_EQ(topicOf<conv::ServiceStatus>(), "base/status");
    EXPECT_EQ(topicOf<Link>(), "base");
    EXPECT_EQ(topicOf<std::vector<Link>>(), "base");
    std::ifstream file(ZYM_MQTT_WIRE_FORMAT_PAGE);
    std::string const page((std::istreambuf_iterator<char>(file)), {});
    for (std::string const row :
         {"| communication status | `<base>/communication` | 2 | yes |",
          "| identification | `<base>/identification` | 2 | yes |",
          "| service status | `<base>/status` | 2 | yes |", "| link | `<base>` | 2 | yes |",
          "| link collection | `<base>` | 2 | yes |"}) {
        EXPECT_NE(page.find(row), std::string::npos) << row;
    }
}

} // namespace
