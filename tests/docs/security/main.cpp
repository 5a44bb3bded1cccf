#include "security/1.inc"
