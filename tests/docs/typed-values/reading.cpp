#include <cstdint>
#include <mqtt/fields.hpp>

#include "typed-values/2.inc"

std::shared_ptr<mqtt::RequestReplyData> request();

std::shared_ptr<mqtt::RequestReplyData> request() {
#include "typed-values/3.inc"
    return request;
}

template class mqtt::MqttData<Tank>;
