#pragma once

#include <mqtt/request_reply.hpp>

#include <gtest/gtest.h>

#include <string>

using Request = mqtt::RequestReply::Request;
using Reply = mqtt::RequestReply::Reply;

// Reads messages without a client.

inline zym::common::Uuid const CLIENT(1);
inline zym::common::Uuid const SERVER(2);
inline std::string const CLIENT_TEXT = "AAAAAAAAAAAAAAAAAAAAAQ";
inline std::string const REQUEST_TOPIC = "x/n?\?/" + CLIENT_TEXT;

inline void read(Request& request, std::string const& payload,
                 mqtt::Topic const& topic = REQUEST_TOPIC) {
    mqtt::MqttData<Request>::deserialize(topic, payload, payload.empty(), request);
}

inline void read(Reply& reply, std::string const& payload) {
    mqtt::MqttData<Reply>::deserialize("x/n?=/" + CLIENT_TEXT, payload, payload.empty(), reply);
}

inline Request aRequest() {
    Request request;
    request.topic = "time/zone";
    request.name = "sync";
    request.clientUuid = CLIENT;
    request.serverUuid = SERVER;
    request.requestId = 3;
    return request;
}

inline void expectSame(Request const& actual, Request const& expected) {
    EXPECT_EQ(actual.topic, expected.topic);
    EXPECT_EQ(actual.name, expected.name);
    EXPECT_EQ(actual.clientUuid, expected.clientUuid);
    EXPECT_EQ(actual.serverUuid, expected.serverUuid);
    EXPECT_EQ(actual.data, expected.data);
    EXPECT_EQ(actual.requestId, expected.requestId);
}
