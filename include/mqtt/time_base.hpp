#pragma once

#include "mqtt/export.hpp"
#include "mqtt/request_reply.hpp"

#include <conv/seconds_duration.hpp>
#include <zym/common/synchronized_time_base_adaptor.hpp>
#include <zym/common/synchronized_time_base_proxy.hpp>
#include <zym/common/timer.hpp>
#include <zym/common/uuid.hpp>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace mqtt {

class Visitors;

/// The request/reply service by which a server tells the time.
ZYM_MQTT_EXPORT extern char const* const TIME_SYNC_REQUEST_REPLY_NAME; // timeSync

/// Asks for the time: `{"$reqId": 1, "client": 12.5}`.
class ZYM_MQTT_EXPORT TimeSyncRequestData : public RequestReplyData {
public:
    TimeSyncRequestData() = default;
    explicit TimeSyncRequestData(double now) : client(now) {}
    TimeSyncRequestData(TimeSyncRequestData const&) = default;
    TimeSyncRequestData& operator=(TimeSyncRequestData const&) = default;
    ~TimeSyncRequestData() override;
    void deserialize(zym::common::lwjson::Deserializer& in) override;
    void serialize(zym::common::lwjson::Serializer& out) const override;

    double client = 0.0; ///< seconds, when asking, on the clock of the one who asks
};

/// Tells the time: `{"$reqId": 1, "$err": 1, "client": 12.5, "ref": 1700.25}`.
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
    double ref = 0.0;    ///< seconds, when answering, on the server's clock
};

/// A client's view of a server's time.
///
/// Ten exchanges with the server, one after the other, estimate by how much its clock is behind
/// ours; from then on one exchange every 30 seconds keeps the estimate fresh. A sample is the
/// middle between asking and hearing the answer, less the server's time; the first counts in full,
/// the next ones with 0.1, 0.09, 0.081, ... down to half a percent. A failed exchange is made again
/// at once, without limit, as long as there is no first estimate; one that cannot be sent for lack
/// of memory, a second later. Without a connection there is no periodic exchange.
///
/// ### Threads
/// Every operation may be called from any thread, also from inside the listener's call; none may be
/// called from a communication state listener. On the MQTT client's worker thread `synchronize`
/// does not wait, and returns false. The listener is called on the worker thread with no lock held,
/// and may even destroy the proxy; what it throws is dropped. `stop` and `terminate` wait for such
/// a call on another thread, unless it has terminated the proxy: do not hold a lock that the
/// listener takes.
///
/// ### Lifetime
/// The proxy may be destroyed at any time, also while others are in `synchronize`, which then
/// returns false.
class ZYM_MQTT_EXPORT SynchronizedTimeBaseMqttProxy
    : public virtual zym::common::SynchronizedTimeBaseProxy,
      private RequestReplyClient::Listener {
public:
    /// @param topic where the server answers: the adaptor's
    /// @param uuid who asks
    /// @param listener may be null; see `registerListener`. A derived class gives uuid and listener
    ///        to the virtual base `zym::common::SynchronizedTimeBaseProxy` too, which tells it
    SynchronizedTimeBaseMqttProxy(MqttClient& client, Topic const& topic,
                                  zym::common::Uuid const& uuid,
                                  zym::common::SynchronizedTimeBaseProxy::Listener* listener);

    /// Ends the proxy for good. The last known offset stays.
    void terminate() override;
    /// Terminates.
    ~SynchronizedTimeBaseMqttProxy() override;

    /// @return false when already started, terminated, or when the server cannot be asked
    /// @throws std::system_error no thread to be had for a timer: nothing is started then
    bool startSync(zym::common::Uuid const& server) override;
    /// @param timeout seconds; 0, and everything from 2^31 up, does not wait
    /// @return false also when another call stops the proxy meanwhile
    /// @throws std::system_error as `startSync`
    bool synchronize(zym::common::Uuid const& server,
                     conv::SecondsDuration const& timeout) override;
    bool stop() override;
    /// Forgets the estimate and makes one exchange, whose sample counts with the weight that the
    /// next one would have had: the time is wrong until others have followed.
    void forceSync() override;

    /// 0 while the offset is larger than our own clock.
    std::uint32_t timeBase() const override;

    /// The monotonic clock of this machine, cut to milliseconds. May be overridden, to compare
    /// with another clock: it is called on the worker, the timer's and the callers' threads, with
    /// locks held, and must not call the proxy.
    double localTimeBase() const override;

    /// By how many seconds the server's clock is behind `localTimeBase`; 0 while it is not known.
    double offset() const;

protected:
    /// Terminates and waits for whatever is under way on other threads. For the destructor of a
    /// derived class, before any part of it is gone.
    void release() noexcept;

private:
    using Lock = std::unique_lock<std::mutex>;
    class ZYM_MQTT_LOCAL Sample;

    ZYM_MQTT_LOCAL bool start(zym::common::Uuid const& server, bool blocking, Lock const& lock);
    ZYM_MQTT_LOCAL void stop(Lock const& lock);
    ZYM_MQTT_LOCAL void reset(Lock const& lock);
    ZYM_MQTT_LOCAL bool sendRequest(bool notify, Lock const& lock);
    ZYM_MQTT_LOCAL bool tryToSendRequest(Lock const& lock);
    ZYM_MQTT_LOCAL bool isCurrent(Sample const& sample, Lock const& lock) const;
    ZYM_MQTT_LOCAL bool waitUntilSynchronized(conv::SecondsDuration const& timeout, Lock& lock);
    ZYM_MQTT_LOCAL bool updateTimeBase(double sample, Lock const& lock);
    ZYM_MQTT_LOCAL void filter(double sample, Lock const& lock);
    ZYM_MQTT_LOCAL void setOffset(double offset);
    ZYM_MQTT_LOCAL void goOn(Lock const& lock);
    ZYM_MQTT_LOCAL void arm(std::chrono::milliseconds period, Lock const& lock);
    ZYM_MQTT_LOCAL double offsetOf(Sample const& sample) const;
    ZYM_MQTT_LOCAL void setSynchronized(Lock const& lock);
    ZYM_MQTT_LOCAL void startPeriodicExchange(Lock const& lock);
    ZYM_MQTT_LOCAL void tellListener(unsigned int run);
    ZYM_MQTT_LOCAL void onTimer();
    void onReply(unsigned int requestId, std::string const& name,
                 zym::common::Uuid const& clientUuid, zym::common::Uuid const& serverUuid,
                 RequestReplyData const& data, RequestReply::ErrorCode error) override;

    bool active_ = false; ///< started and not stopped
    std::int32_t remainingSamples_ = 0;
    double offset_ = 0.0;
    double gain_ = 0.0;
    zym::common::Timer timer_;
    RequestReplyClient requestClient_;
    std::mutex mutex_; ///< all of the above, but the offset for reading; taken before theirs
    std::condition_variable changed_;
    bool notifyOnSuccess_ = true;
    unsigned int run_ = 0;           ///< counts the resets: what belongs to an earlier run is late
    mutable std::mutex offsetMutex_; ///< a leaf: offset_
    std::shared_ptr<Visitors> const callers_; ///< inside `synchronize`
    std::shared_ptr<Visitors> const tellers_; ///< calling the listener
    MqttClient& mqtt_;
    bool retrying_ = false; ///< the timer is armed because the next exchange could not be made
    bool periodic_ = false; ///< the timer is armed for the periodic exchange
};

/// A server's offer of its time: answers whoever asks with its own clock.
///
/// ### Threads
/// Every operation may be called from any thread. `terminate` and the destructor wait for the
/// broker unless called on the MQTT client's worker thread; neither may be called from a
/// communication state listener.
class ZYM_MQTT_EXPORT SynchronizedTimeBaseMqttAdaptor
    : public virtual zym::common::SynchronizedTimeBaseAdaptor,
      public RequestReplyServer::Listener {
public:
    /// Starts to answer, before a derived class is whole: make that one before anybody can ask for
    /// it, or its first answers may tell this class's time.
    /// @param uuid the server's identity, which a proxy asks for
    SynchronizedTimeBaseMqttAdaptor(MqttClient& client, Topic const& topic,
                                    zym::common::Uuid const& uuid);
    /// Terminates.
    ~SynchronizedTimeBaseMqttAdaptor() override;

    /// `localTimeBase` in whole seconds.
    std::uint32_t timeBase() const override;

    /// The monotonic clock of this machine, cut to milliseconds. May be overridden, to offer
    /// another clock: it is called on the worker thread.
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
    /// Terminates and waits for a request being answered on another thread. For the destructor of
    /// a derived class, before any part of it is gone.
    void release() noexcept;

private:
    RequestReplyServer server_;
};

} // namespace mqtt
