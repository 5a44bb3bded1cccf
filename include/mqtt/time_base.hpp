#pragma once

#include "mqtt/export.hpp"
#include "mqtt/mutex.hpp"
#include "mqtt/request_reply.hpp"

#include <conv/seconds_duration.hpp>
#include <zym/common/synchronized_time_base_adaptor.hpp>
#include <zym/common/synchronized_time_base_proxy.hpp>
#include <zym/common/timer.hpp>
#include <zym/common/uuid.hpp>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>

namespace mqtt {

class ActiveCalls;

/// The request/reply service for reading a server's time.
ZYM_MQTT_EXPORT extern char const* const TIME_SYNC_REQUEST_REPLY_NAME; // timeSync

/// The request for the time: `{"$reqId": 1, "client": 12.5}`.
class ZYM_MQTT_EXPORT TimeSyncRequestData : public RequestReplyData {
public:
    TimeSyncRequestData() = default;
    explicit TimeSyncRequestData(double now) : client(now) {}
    TimeSyncRequestData(TimeSyncRequestData const&) = default;
    TimeSyncRequestData& operator=(TimeSyncRequestData const&) = default;
    ~TimeSyncRequestData() override;
    void deserialize(zym::common::lwjson::Deserializer& in) override;
    void serialize(zym::common::lwjson::Serializer& out) const override;

    double client = 0.0; ///< seconds on the client's clock, when the request is made
};

/// The reply with the time: `{"$reqId": 1, "$err": 1, "client": 12.5, "ref": 1700.25}`.
class ZYM_MQTT_EXPORT TimeSyncReplyData : public RequestReplyData {
public:
    TimeSyncReplyData() = default;
    TimeSyncReplyData(double asked, double now) : client(asked), ref(now) {}
    TimeSyncReplyData(TimeSyncReplyData const&) = default;
    TimeSyncReplyData& operator=(TimeSyncReplyData const&) = default;
    ~TimeSyncReplyData() override;
    void deserialize(zym::common::lwjson::Deserializer& in) override;
    void serialize(zym::common::lwjson::Serializer& out) const override;

    double client = 0.0; ///< seconds, from the request
    double ref = 0.0;    ///< seconds on the server's clock, when it answers
};

/// A client's estimate of a server's time.
///
/// Ten exchanges with the server, one after the other, estimate by how much its clock is behind
/// the local clock; from then on one exchange every 30 seconds updates the estimate. A sample is
/// the middle between sending the request and receiving the reply, less the server's time; the
/// first counts in full, the next ones with 0.1, 0.09, 0.081, ... down to half a percent. As long
/// as there is no first estimate a failed exchange is made again at once, without limit; one that
/// cannot be sent for lack of memory, a second later. Without a connection there is no periodic
/// exchange.
///
/// ### Threads
/// Every operation may be called from any thread, also from inside the listener's call; none may be
/// called from a communication state listener. On the MQTT client's worker thread `synchronize`
/// does not wait, and returns false. The listener is called on the worker thread with no lock held,
/// and may even destroy the proxy; what it throws is dropped. `stop` and the first `terminate` wait
/// for such a call on another thread, unless the listener has terminated the proxy in it: do not
/// hold a lock that the listener takes.
///
/// ### Lifetime
/// The proxy may be destroyed at any time, also while other threads are in `synchronize`, which
/// then returns false.
class ZYM_MQTT_EXPORT SynchronizedTimeBaseMqttProxy
    : public virtual zym::common::SynchronizedTimeBaseProxy,
      private RequestReplyClient::Listener {
public:
    /// @param topic where the server answers: the adaptor's
    /// @param uuid the client's own identity
    /// @param listener may be null; see `registerListener`. A derived class also passes uuid and
    ///        listener to the virtual base `zym::common::SynchronizedTimeBaseProxy`, which calls it
    SynchronizedTimeBaseMqttProxy(MqttClient& client, Topic const& topic,
                                  zym::common::Uuid const& uuid,
                                  zym::common::SynchronizedTimeBaseProxy::Listener* listener);

    /// Ends the proxy for good. The last known offset stays.
    void terminate() override;
    /// Terminates.
    ~SynchronizedTimeBaseMqttProxy() override;

    /// @return false when already started, terminated, or when the request cannot be sent
    /// @throws std::system_error no thread for the timer: nothing is started then
    bool startSync(zym::common::Uuid const& server) override;
    /// @param timeout seconds; 0, and everything from 2^31 up, does not wait
    /// @return false after the time-out, also when another call stops the proxy meanwhile
    /// @throws std::system_error as `startSync`
    bool synchronize(zym::common::Uuid const& server,
                     conv::SecondsDuration const& timeout) override;
    bool stop() override;
    /// Drops the estimate and makes one exchange, whose sample counts with the weight that the next
    /// one would have had: the time is wrong until more samples have followed.
    void forceSync() override;

    /// The server's time in whole seconds; 0 while the offset is larger than `localTimeBase`.
    std::uint32_t timeBase() const override;

    /// The monotonic clock of this machine in seconds, truncated to milliseconds. May be
    /// overridden, to compare with another clock: it is called on the worker, the timer's and the
    /// callers' threads, with locks held, and must not call the proxy.
    double localTimeBase() const override;

    /// By how many seconds the server's clock is behind `localTimeBase`; 0 while it is not known.
    double offset() const;

protected:
    /// Terminates and waits for the calls under way on other threads. For the destructor of a
    /// derived class, before any of its members is destroyed.
    void release() noexcept;

private:
    class ZYM_MQTT_LOCAL Sample;
    /// NONE becomes RETRY when a run's next request cannot be sent, and PERIODIC_EXCHANGE when the
    /// time is known; an expiry ends RETRY, the next run ends both.
    enum class TimerUse : std::uint8_t { NONE, RETRY, PERIODIC_EXCHANGE };

    ZYM_MQTT_LOCAL bool start(zym::common::Uuid const& server, bool blocking)
        ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL bool waitUntilSynchronized(conv::SecondsDuration const& timeout, MutexLock& lock)
        ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void stopRun() ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void reset() ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL bool sendRequest(bool notify) ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL bool tryToSendRequest() ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void makeNextExchange() ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL bool isCurrent(Sample const& sample) const ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL double offsetOf(Sample const& sample) const;
    ZYM_MQTT_LOCAL bool updateTimeBase(double sample) ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void filter(double sample) ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void setOffset(double offset) ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void startPeriodicExchange() ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void callListener(unsigned int run);
    ZYM_MQTT_LOCAL void onTimer();
    void onReply(unsigned int requestId, std::string const& name,
                 zym::common::Uuid const& clientUuid, zym::common::Uuid const& serverUuid,
                 RequestReplyData const& data, RequestReply::ErrorCode error) override;

    bool active_ ZYM_MQTT_GUARDED_BY(mutex_) = false; ///< started and not stopped
    std::int32_t remainingSamples_ ZYM_MQTT_GUARDED_BY(mutex_) = 0;
    double offset_ ZYM_MQTT_GUARDED_BY(offsetMutex_) = 0.0;
    double gain_ ZYM_MQTT_GUARDED_BY(mutex_) = 0.0;
    zym::common::Timer timer_;
    RequestReplyClient requestClient_;
    Mutex mutex_; ///< taken before those of the timer and the request client
    std::condition_variable changed_;
    bool notifyOnSuccess_ ZYM_MQTT_GUARDED_BY(mutex_) = true;
    /// Counts the resets: what belongs to an earlier run is ignored.
    unsigned int run_ ZYM_MQTT_GUARDED_BY(mutex_) = 0;
    mutable Mutex offsetMutex_;                        ///< no other lock is taken while it is held
    std::shared_ptr<ActiveCalls> const calls_;         ///< of `synchronize`
    std::shared_ptr<ActiveCalls> const listenerCalls_; ///< on their way to the listener
    MqttClient& mqtt_;
    TimerUse timerUse_ ZYM_MQTT_GUARDED_BY(mutex_) = TimerUse::NONE;
};

/// The server's side: answers every request for the time with its own clock.
///
/// ### Threads
/// Every operation may be called from any thread. `terminate` and the destructor wait for the
/// broker unless called on the MQTT client's worker thread; neither may be called from a
/// communication state listener.
class ZYM_MQTT_EXPORT SynchronizedTimeBaseMqttAdaptor
    : public virtual zym::common::SynchronizedTimeBaseAdaptor,
      public RequestReplyServer::Listener {
public:
    /// Starts to answer before the constructor of a derived class has run: construct a derived
    /// class before requests can arrive, or its first replies may hold this class's time.
    /// @param uuid the server's identity, which the requests of a proxy name
    SynchronizedTimeBaseMqttAdaptor(MqttClient& client, Topic const& topic,
                                    zym::common::Uuid const& uuid);
    /// Terminates.
    ~SynchronizedTimeBaseMqttAdaptor() override;

    /// `localTimeBase` in whole seconds.
    std::uint32_t timeBase() const override;

    /// The monotonic clock of this machine in seconds, truncated to milliseconds. May be
    /// overridden, to offer another clock: it is called on the worker thread.
    double localTimeBase() const override;

    /// Stops answering for good; waits up to 5 seconds for the broker's acknowledgement.
    void terminate();

    /// Answers one request, with SUCCESS and a `TimeSyncReplyData`; called by the server.
    std::shared_ptr<RequestReplyData> onRequest(std::string const& name,
                                                zym::common::Uuid const& clientUuid,
                                                zym::common::Uuid const& serverUuid,
                                                RequestReplyData const& requestData,
                                                RequestReply::ErrorCode& error) override;

protected:
    /// Terminates and waits for a request being answered on another thread. For the destructor of a
    /// derived class, before any of its members is destroyed.
    void release() noexcept;

private:
    RequestReplyServer server_;
};

} // namespace mqtt
