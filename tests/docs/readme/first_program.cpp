#include "readme/1.inc"
