#include "testing/1.inc"
