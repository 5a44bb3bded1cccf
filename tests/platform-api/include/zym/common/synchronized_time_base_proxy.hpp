#pragma once

#include <conv/seconds_duration.hpp>
#include <zym/common/synchronized_time_base.hpp>
#include <zym/common/uuid.hpp>

namespace zym::common {

class SynchronizedTimeBaseProxy : public SynchronizedTimeBase {
public:
    class Listener {
    public:
        virtual void onTimeSynchronized() = 0;

    protected:
        ~Listener() = default;
    };

    SynchronizedTimeBaseProxy(Uuid const& uuid, Listener* listener);
    ~SynchronizedTimeBaseProxy() override;

    virtual void terminate() = 0;
    virtual void registerListener(Listener* listener);
    virtual bool startSync(Uuid const& server) = 0;
    virtual bool synchronize(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    virtual bool stop() = 0;
    virtual void forceSync() = 0;
    virtual double localTimeBase() const = 0;

    bool isSynchronized() const;

protected:
    virtual void notifyListener();
    void setSynchronizedFlag(bool synchronized);
    bool setTerminatedFlag();
    Uuid const& uuid() const;
    Uuid serverUuid() const;
    void setServerUuid(Uuid const& server);
};

} // namespace zym::common
