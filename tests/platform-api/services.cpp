// The templates of mqtt/service.hpp.

#include "data/every_kind.hpp"

#include <mqtt/service.hpp>

template class mqtt::Result<sample::EveryKind>;
template class mqtt::Server<sample::EveryKind, mqtt::Nothing>;
template class mqtt::Caller<mqtt::Nothing, sample::EveryKind>;
