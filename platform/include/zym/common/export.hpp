#pragma once

#if defined(__GNUC__)
/// Marks what libzym-vo-common exports; everything else is hidden.
#define ZYM_COMMON_EXPORT __attribute__((visibility("default")))
#else
#define ZYM_COMMON_EXPORT
#endif
