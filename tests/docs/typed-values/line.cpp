#include <mqtt/data.hpp>

#include <stdexcept>

#include "typed-values/9.inc"
