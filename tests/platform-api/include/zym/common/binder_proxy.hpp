#pragma once

#include <conv/seconds_duration.hpp>
#include <zym/common/binder.hpp>
#include <zym/common/uuid.hpp>

#include <cstdint>

namespace zym::common {

class BinderProxy {
public:
    class Listener {
    public:
        virtual void onBound(Binder::Error error) = 0;
        virtual void onUnbound(Binder::Error error) = 0;

    protected:
        ~Listener() = default;
    };

    BinderProxy(Uuid const& uuid, Listener* listener);
    virtual ~BinderProxy();

    virtual std::uint32_t timeBase() const = 0;
    virtual void terminate();
    virtual Binder::Error bindSync(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    virtual Binder::Error bind(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    virtual Binder::Error unbindSync(conv::SecondsDuration const& timeout) = 0;
    virtual Binder::Error unbind(conv::SecondsDuration const& timeout) = 0;
    virtual void forceTimeBaseSync() = 0;
    virtual bool isTimeBaseSynchronized() const = 0;

protected:
    Uuid const& uuid() const;
    Uuid serverUuid() const;
    bool isTerminated() const;
    Binder::Error startBinding(Uuid const& server);
    void endBinding(Binder::Error error);
    Binder::Error startUnbinding();
    void endUnbinding(Binder::Error error);
};

} // namespace zym::common
