#pragma once

#include <zym/common/synchronized_time_base.hpp>

namespace zym::common {

class SynchronizedTimeBaseAdaptor : public SynchronizedTimeBase {
public:
    SynchronizedTimeBaseAdaptor();
    ~SynchronizedTimeBaseAdaptor() override;

    virtual double localTimeBase() const = 0;

protected:
    bool setTerminatedFlag();
};

} // namespace zym::common
