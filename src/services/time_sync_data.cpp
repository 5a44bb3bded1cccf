#include "mqtt/time_base.hpp"

namespace mqtt {

namespace {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

constexpr char TIME_SYNC[] = "timeSync";
constexpr char CLIENT[] = "client";
constexpr char REF[] = "ref";

void append(Serializer& out, char const* key, double seconds) {
    out.appendKey(key);
    out.addValue(seconds);
}

} // namespace

char const* const TIME_SYNC_REQUEST_REPLY_NAME = TIME_SYNC;

TimeSyncRequestData::~TimeSyncRequestData() = default;

void TimeSyncRequestData::deserialize(Deserializer& in) {
    Deserializer::extractValue(in.getMember(CLIENT), client, "");
}

void TimeSyncRequestData::serialize(Serializer& out) const {
    append(out, CLIENT, client);
}

TimeSyncReplyData::~TimeSyncReplyData() = default;

void TimeSyncReplyData::deserialize(Deserializer& in) {
    Deserializer::extractValue(in.getMember(CLIENT), client, "");
    Deserializer::extractValue(in.getMember(REF), ref, "");
}

void TimeSyncReplyData::serialize(Serializer& out) const {
    append(out, CLIENT, client);
    append(out, REF, ref);
}

} // namespace mqtt
