// The templates of mqtt/fields.hpp, for every kind of field, and those of mqtt/service.hpp.

#include "data/every_kind.hpp"

#include <mqtt/service.hpp>

template class mqtt::MqttData<sample::EveryKind>;
template class mqtt::Payload<sample::EveryKind>;
template class mqtt::Result<sample::EveryKind>;
template class mqtt::Server<sample::EveryKind, mqtt::Nothing>;
template class mqtt::Caller<mqtt::Nothing, sample::EveryKind>;
