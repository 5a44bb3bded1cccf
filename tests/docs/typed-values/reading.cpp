#include "typed-values/2.inc"
