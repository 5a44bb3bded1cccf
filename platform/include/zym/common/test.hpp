#pragma once

#include <zym/common/export.hpp>

namespace zym::common::test {

/// Blocks the calling thread for at least so many milliseconds, also across signals.
ZYM_COMMON_EXPORT void sleep(unsigned milliseconds);

} // namespace zym::common::test
