#pragma once

#include "mqtt/export.hpp"
#include "mqtt/request_reply.hpp"
#include "mqtt/time_base.hpp"

#include <conv/seconds_duration.hpp>
#include <zym/common/binder.hpp>
#include <zym/common/binder_proxy.hpp>
#include <zym/common/uuid.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace mqtt {

class Visitors;
struct BinderPhases;

/// Asks a server for a binding: `{"$reqId": 1, "topic": "plant/panel"}`.
class ZYM_MQTT_EXPORT BindRequestData : public RequestReplyData {
public:
    BindRequestData() = default;
    explicit BindRequestData(Topic const& bound) : topic(bound) {}
    BindRequestData(BindRequestData const&) = default;
    BindRequestData& operator=(BindRequestData const&) = default;
    ~BindRequestData() override;
    void deserialize(zym::common::lwjson::Deserializer& in) override;
    void serialize(zym::common::lwjson::Serializer& out) const override;

    Topic topic; ///< what the client wants to be bound, or where it is found: the service says
};

/// A client's binding to a server, over the request/reply services "bind" and "unbind", with the
/// server's time: a binding is complete when the server has agreed and its time is known. Of one
/// that is called off in between the listener is told by `onUnbound` alone.
///
/// A server answers with SUCCESS, or refuses with 16 plus a `Binder::Error`; 16 plus ALREADY_BOUND
/// counts as success. Any answer to "unbind" ends the binding, also none in time, except that the
/// server is busy (16 plus BUSY, or a request under way here) or that nobody serves it: then
/// nothing has changed.
///
/// A binding or unbinding that has begun is always ended. When its request cannot be sent, or an
/// operation throws, the listener is told so (FAILED, or what the operation returns) before the
/// operation returns or throws.
///
/// ### Threads
/// Every operation may be called from any thread, also from inside the listener's calls; none may
/// be called from a communication state listener. On the MQTT client's worker thread `bindSync` and
/// `unbindSync` do not wait: they end as when the server does not answer. The listener is called
/// with no lock held: on the worker thread, on a timer's for a request that nobody answers, on that
/// of the caller for a blocking operation, for a request that cannot be sent, and for what `unbind`
/// or `cancelUnbinding` calls off. What it throws is dropped.
///
/// ### Lifetime
/// The proxy may be destroyed at any time, from inside the listener's calls too, and while others
/// are in a blocking operation, which then returns, in `unbind`, `cancelUnbinding` or `terminate`.
class ZYM_MQTT_EXPORT BinderMqttProxy : public virtual zym::common::BinderProxy,
                                        private RequestReplyClient::Listener,
                                        private zym::common::SynchronizedTimeBaseProxy::Listener {
public:
    /// @param requestTopic below which the server is asked for bindings and its time
    /// @param replyTopic the sub-path of the services "bind" and "unbind", empty for none
    /// @param uuid the client's own identity
    /// @param boundTopic sent with every binding: see `BindRequestData`
    /// @param listener may be null; must live until `terminate` has returned. A derived class gives
    ///        uuid and listener to the virtual base `zym::common::BinderProxy` too, which tells it
    BinderMqttProxy(MqttClient& client, Topic const& requestTopic, Topic const& replyTopic,
                    zym::common::Uuid const& uuid, Topic const& boundTopic,
                    zym::common::BinderProxy::Listener* listener);

    void terminate() override;
    /// Terminates; the server is not told.
    ~BinderMqttProxy() override;

    /// Binds, and waits up to 30 seconds more for the server's time.
    /// @return also what the server answered; NOT_SYNCHRONIZED: the server has agreed but its time
    ///         could not be read: the binding is neither complete nor ended, `unbind` is the way
    ///         out
    /// @throws std::bad_alloc nothing is bound
    zym::common::Binder::Error bindSync(zym::common::Uuid const& server,
                                        conv::SecondsDuration const& timeout) override;
    /// The listener is told when the server has refused, or has agreed and its time is known,
    /// however long that takes; NOT_SYNCHRONIZED when there is no way to read the time: the server
    /// then does hold the binding, and a second one is answered with ALREADY_BOUND, a success.
    /// @return SUCCESS: the request is on its way; BUSY, ALREADY_BOUND or CANCELLED: not begun;
    ///         otherwise the request could not be sent, and the listener has been told the same
    /// @throws std::system_error no thread to be had for a timer; std::bad_alloc; nothing is bound,
    ///         and the listener has been told FAILED if the binding had begun
    zym::common::Binder::Error bind(zym::common::Uuid const& server,
                                    conv::SecondsDuration const& timeout) override;
    /// Calls off a binding under way, whose caller or listener gets CANCELLED, and unbinds.
    /// @throws std::bad_alloc as `unbind`
    zym::common::Binder::Error unbindSync(conv::SecondsDuration const& timeout) override;
    /// Calls off a binding under way, whose caller or listener gets CANCELLED, and unbinds.
    /// @param timeout all ones: until the server answers or `cancelUnbinding` is called
    /// @return SUCCESS: the request is on its way; BUSY, NOT_BOUND or CANCELLED: not begun;
    ///         otherwise the request could not be sent, and the listener has been told the same
    /// @throws std::system_error no thread to be had for a timer; std::bad_alloc; the listener has
    ///         been told FAILED, and what was bound still is
    zym::common::Binder::Error unbind(conv::SecondsDuration const& timeout) override;
    /// Ends an unbinding under way without the server's answer: for us the binding is over, as
    /// after a time-out, and whoever unbinds gets SUCCESS. The server may have unbound or not. Does
    /// nothing when none is under way. Waits only, as `unbindSync` does too, for a call to
    /// `onBound` on another thread.
    void cancelUnbinding();

    /// As `SynchronizedTimeBaseMqttProxy::forceSync`.
    void forceTimeBaseSync() override;
    bool isTimeBaseSynchronized() const override;
    std::uint32_t timeBase() const override;

    /// What a request/reply code means for a binding.
    static zym::common::Binder::Error requestReplyToBinderError(RequestReply::ErrorCode code);

protected:
    /// The server's time is known: ends the binding.
    void onTimeSynchronized() override;

    /// Terminates and waits for whatever is under way on other threads. For the destructor of a
    /// derived class, before any part of it is gone.
    void release() noexcept;

private:
    struct Begun;

    ZYM_MQTT_LOCAL BinderMqttProxy(MqttClient& client, Topic const& requestTopic,
                                   Topic const& replyTopic, zym::common::Uuid const& uuid,
                                   Topic const& boundTopic, std::shared_ptr<BinderPhases> phases);

    void onReply(unsigned int requestId, std::string const& name,
                 zym::common::Uuid const& clientUuid, zym::common::Uuid const& serverUuid,
                 RequestReplyData const& data, RequestReply::ErrorCode error) override;
    ZYM_MQTT_LOCAL Begun beginBinding(zym::common::Uuid const& server,
                                      RequestReplyClient::Listener* listener,
                                      conv::SecondsDuration const& timeout);
    ZYM_MQTT_LOCAL zym::common::Binder::Error
    onBindReply(unsigned int phase, RequestReply::ErrorCode code, bool blocking);
    ZYM_MQTT_LOCAL bool readTime(unsigned int phase, bool blocking);
    ZYM_MQTT_LOCAL void closeBinding(unsigned int phase, zym::common::Binder::Error error);
    ZYM_MQTT_LOCAL Begun beginUnbinding(RequestReplyClient::Listener* listener,
                                        conv::SecondsDuration const& timeout);
    ZYM_MQTT_LOCAL void sendUnbinding(Begun& begun, RequestReplyClient::Listener* listener,
                                      conv::SecondsDuration const& timeout);
    ZYM_MQTT_LOCAL zym::common::Binder::Error onUnbindReply(unsigned int phase,
                                                            RequestReply::ErrorCode code);
    ZYM_MQTT_LOCAL void completeUnbinding(unsigned int phase);
    ZYM_MQTT_LOCAL void stopTime();
    ZYM_MQTT_LOCAL void closeUnbinding(unsigned int phase, zym::common::Binder::Error error);
    ZYM_MQTT_LOCAL void endWaits();
    ZYM_MQTT_LOCAL void endRequests();

    Topic boundTopic_;
    RequestReplyClient bindClient_;
    RequestReplyClient unbindClient_;
    SynchronizedTimeBaseMqttProxy timeBase_;
    std::shared_ptr<Visitors> const callers_;    ///< inside an operation or a call to the listener
    std::shared_ptr<BinderPhases> const phases_; ///< what is known here of the phases under way
};

} // namespace mqtt
