#include <mqtt/data.hpp>

#include <stdexcept>

#include "typed-values/6.inc"
