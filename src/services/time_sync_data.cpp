#include "mqtt/time_base.hpp"

#include "common/json_members.hpp"

namespace mqtt {

namespace {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

constexpr char TIME_SYNC[] = "timeSync";
constexpr char CLIENT[] = "client";
constexpr char REF[] = "ref";

} // namespace

char const* const TIME_SYNC_REQUEST_REPLY_NAME = TIME_SYNC;

TimeSyncRequestData::~TimeSyncRequestData() = default;

void TimeSyncRequestData::deserialize(Deserializer& in) {
    readMember(in, CLIENT, client);
}

void TimeSyncRequestData::serialize(Serializer& out) const {
    appendMember(out, CLIENT, client);
}

TimeSyncReplyData::~TimeSyncReplyData() = default;

void TimeSyncReplyData::deserialize(Deserializer& in) {
    readMember(in, CLIENT, client);
    readMember(in, REF, ref);
}

void TimeSyncReplyData::serialize(Serializer& out) const {
    appendMember(out, CLIENT, client);
    appendMember(out, REF, ref);
}

} // namespace mqtt
