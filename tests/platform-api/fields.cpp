// The templates of mqtt/fields.hpp, for every kind of field.

#include "data/every_kind.hpp"

template class mqtt::MqttData<sample::EveryKind>;
template class mqtt::Payload<sample::EveryKind>;
