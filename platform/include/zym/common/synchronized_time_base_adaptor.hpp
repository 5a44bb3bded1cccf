#pragma once

#include <zym/common/export.hpp>
#include <zym/common/synchronized_time_base.hpp>

#include <atomic>

namespace zym::common {

/// A server that offers its time to clients.
class ZYM_COMMON_EXPORT SynchronizedTimeBaseAdaptor : public SynchronizedTimeBase {
public:
    SynchronizedTimeBaseAdaptor();
    ~SynchronizedTimeBaseAdaptor() override;

    /// The clock of this process, in seconds. May be called from any thread.
    virtual double localTimeBase() const = 0;

protected:
    /// Sets the terminated flag. May be called from any thread.
    /// @return false when it was set already
    bool setTerminatedFlag() noexcept { return !terminated_.exchange(true); }

private:
    std::atomic<bool> terminated_{false};
};

} // namespace zym::common
