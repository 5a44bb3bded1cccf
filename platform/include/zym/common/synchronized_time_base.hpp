#pragma once

#include <zym/common/export.hpp>

#include <cstdint>

namespace zym::common {

/// A time that several processes share.
class ZYM_COMMON_EXPORT SynchronizedTimeBase {
public:
    SynchronizedTimeBase(SynchronizedTimeBase const&) = delete;
    SynchronizedTimeBase& operator=(SynchronizedTimeBase const&) = delete;

    /// Whole seconds since a moment that the server chooses. May be called from any thread.
    virtual std::uint32_t timeBase() const = 0;
    virtual ~SynchronizedTimeBase();

protected:
    SynchronizedTimeBase() = default;
};

} // namespace zym::common
