#pragma once

#include <cstdint>

namespace zym::common {

class SynchronizedTimeBase {
public:
    virtual std::uint32_t timeBase() const = 0;
    virtual ~SynchronizedTimeBase();
};

} // namespace zym::common
