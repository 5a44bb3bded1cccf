#include "mqtt/time_base.hpp"
#include "services/local_clock.hpp"

namespace mqtt {

using zym::common::Uuid;

SynchronizedTimeBaseMqttAdaptor::SynchronizedTimeBaseMqttAdaptor(MqttClient& client,
                                                                 Topic const& topic,
                                                                 Uuid const& uuid)
    : server_(client, topic, Topic(), TIME_SYNC_REQUEST_REPLY_NAME) {
    server_.subscribe(this, uuid, std::make_shared<TimeSyncRequestData>());
}

SynchronizedTimeBaseMqttAdaptor::~SynchronizedTimeBaseMqttAdaptor() {
    release();
}

void SynchronizedTimeBaseMqttAdaptor::release() noexcept {
    SynchronizedTimeBaseMqttAdaptor::terminate();
    server_.release();
}

void SynchronizedTimeBaseMqttAdaptor::terminate() {
    if (setTerminatedFlag()) {
        server_.unsubscribeWait();
    }
}

std::uint32_t SynchronizedTimeBaseMqttAdaptor::timeBase() const {
    return wholeSeconds(localTimeBase());
}

double SynchronizedTimeBaseMqttAdaptor::localTimeBase() const {
    return monotonicSeconds();
}

std::shared_ptr<RequestReplyData> SynchronizedTimeBaseMqttAdaptor::onRequest(
    std::string const& /*name*/, Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
    RequestReplyData const& requestData, RequestReply::ErrorCode& error) {
    double const now = localTimeBase();
    auto const& request = dynamic_cast<TimeSyncRequestData const&>(requestData);
    error = RequestReply::ErrorCode::SUCCESS;
    return std::make_shared<TimeSyncReplyData>(request.client, now);
}

} // namespace mqtt
