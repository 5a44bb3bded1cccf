// The macros are those of doctest or Catch2: tests/consumer/own_tests/ compiles it with both.
#include "thermometer.hpp"

#include "testing/3.inc"
