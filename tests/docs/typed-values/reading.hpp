#pragma once

#include "typed-values/1.inc"
