#include "endpoint.hpp"

#include "support/test_client.hpp"

#include <mqtt/request_reply.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using mqtt::Topic;
using zym::common::Uuid;
using Request = mqtt::RequestReply::Request;
using Reply = mqtt::RequestReply::Reply;

Uuid const CLIENT(1);
Uuid const SERVER(2);
std::string const CLIENT_TEXT = "AAAAAAAAAAAAAAAAAAAAAQ";
std::string const SERVER_TEXT = "AAAAAAAAAAAAAAAAAAAAAg";

Request aRequest() {
    Request request;
    request.topic = "time/zone";
    request.name = "sync";
    request.clientUuid = CLIENT;
    request.serverUuid = SERVER;
    return request;
}

class TheTopics : public testing::Test {
protected:
    void expect(std::string const& base, Request const& value, std::string const& prefix) {
        Endpoint<Request> request(*client_, base);
        request.value = value;
        auto const requests = prefix + "?\?/";
        EXPECT_EQ(request.publishTopic(), requests + CLIENT_TEXT);
        EXPECT_EQ(request.subscribeTopic(), requests + "+");
        Endpoint<Reply> reply(*client_, base);
        reply.value = Reply(value);
        EXPECT_EQ(reply.publishTopic(), prefix + "?=/" + CLIENT_TEXT);
        EXPECT_EQ(reply.subscribeTopic(), prefix + "?=/" + CLIENT_TEXT);
    }

    std::unique_ptr<mqtt::MqttClient> client_ = support::testClient("127.0.0.1", 1, idle());

private:
    static support::ClientOptions idle() {
        support::ClientOptions options;
        options.connect = false;
        return options;
    }
};

TEST_F(TheTopics, GoFromBaseToClient) {
    expect("svc", aRequest(), "svc/" + SERVER_TEXT + "/time/zone/sync");
}

TEST_F(TheTopics, LeaveOutANilServer) {
    auto request = aRequest();
    request.serverUuid = Uuid();
    expect("svc", request, "svc/time/zone/sync");
}

TEST_F(TheTopics, LeaveOutAnEmptySubPath) {
    auto request = aRequest();
    request.serverUuid = Uuid();
    request.topic = Topic();
    expect("x", request, "x/sync");
    expect("", request, "sync");
}

TEST_F(TheTopics, SpreadANameWithASlashOverTwoLevels) {
    auto request = aRequest();
    request.serverUuid = Uuid();
    request.topic = Topic();
    request.name = "a/b";
    expect("x", request, "x/a/b");
}

TEST_F(TheTopics, HaveTheSuffixAloneForAnEmptyName) {
    auto request = aRequest();
    request.serverUuid = Uuid();
    request.topic = Topic();
    request.name = "";
    expect("x", request, "x/");
}

class AName : public TheTopics {
protected:
    std::string refusal(std::string const& name) {
        try {
            mqtt::RequestReply const made(*client_, "x", "y/z", name);
            EXPECT_EQ(made.name(), name);
            EXPECT_EQ(made.topic(), "y/z");
        } catch (std::invalid_argument const& error) {
            return error.what();
        }
        return "accepted";
    }
};

TEST_F(AName, IsRefusedWithASlashAtItsBeginningOrEnd) {
    for (char const* const name : {"/a", "a/", "/", "//", "/a/b", "a/b/"}) {
        EXPECT_EQ(refusal(name), "Invalid Request/Reply name; should not contain any of '/'.")
            << name;
    }
}

TEST_F(AName, IsAcceptedWithASlashInside) {
    for (char const* const name : {"a", "a/b", "a//b", ""}) {
        EXPECT_EQ(refusal(name), "accepted") << name;
    }
}

} // namespace
