#include "thermometer.hpp"

#include "testing/2.inc"
