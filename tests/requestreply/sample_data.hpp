#pragma once

#include <mqtt/request_reply.hpp>

#include <memory>
#include <stdexcept>
#include <string>

/// A payload of one number, which must be there.
class NumberData : public mqtt::RequestReplyData {
public:
    explicit NumberData(unsigned int initial = 0) : number(initial) {}

    void deserialize(zym::common::lwjson::Deserializer& in) override {
        zym::common::lwjson::Deserializer::extractValue(in.getMember("number"), number, "");
    }
    void serialize(zym::common::lwjson::Serializer& out) const override {
        out.appendKey("number");
        out.appendValue(std::to_string(number).c_str());
    }

    unsigned int number;
};

class UnwritableData : public NumberData {
public:
    void serialize(zym::common::lwjson::Serializer& /*out*/) const override {
        throw std::runtime_error("cannot be written");
    }
};
