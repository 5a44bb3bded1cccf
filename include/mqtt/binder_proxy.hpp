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

class ActiveCalls;
struct BinderPhases;

/// The request for a binding: `{"$reqId": 1, "topic": "plant/panel"}`.
class ZYM_MQTT_EXPORT BindRequestData : public RequestReplyData {
public:
    BindRequestData() = default;
    explicit BindRequestData(Topic const& bound) : topic(bound) {}
    BindRequestData(BindRequestData const&) = default;
    BindRequestData& operator=(BindRequestData const&) = default;
    ~BindRequestData() override;
    void deserialize(zym::common::lwjson::Deserializer& in) override;
    void serialize(zym::common::lwjson::Serializer& out) const override;

    Topic topic; ///< its meaning is defined by the service
};

/// A client's binding to a server, over the request/reply services "bind" and "unbind", with the
/// server's time: a binding is complete when the server has agreed and its time is known. For one
/// that is cancelled in between only `onUnbound` of the listener is called.
///
/// A server answers with SUCCESS, or refuses with 16 plus a `Binder::Error`; 16 plus ALREADY_BOUND
/// counts as success. An unbinding ends the binding whatever the server answers, and also without
/// an answer in time. Only when the server is busy (16 plus BUSY, or another request under way
/// here) or has no listener, nothing has changed.
///
/// A binding or unbinding that has begun is always ended. When its request cannot be sent, or an
/// operation throws, the listener is called with FAILED, or with what the operation returns, before
/// the operation returns or throws.
///
/// ### Threads
/// Every operation may be called from any thread, also from inside the listener's calls; none may
/// be called from a communication state listener. On the MQTT client's worker thread `bindSync` and
/// `unbindSync` do not wait: they end as if the server had not answered. The listener is called
/// with no lock held: on the worker thread, on a timer's thread for a request without an answer,
/// and on the caller's thread by a blocking operation, for a request that cannot be sent, and for a
/// phase that `unbind` or `cancelUnbinding` cancels. What it throws is dropped.
///
/// ### Lifetime
/// The proxy may be destroyed at any time, also from inside the listener's calls, and while other
/// threads are in a blocking operation, which then returns, in `unbind`, `cancelUnbinding` or
/// `terminate`.
class ZYM_MQTT_EXPORT BinderMqttProxy : public virtual zym::common::BinderProxy,
                                        private RequestReplyClient::Listener,
                                        private zym::common::SynchronizedTimeBaseProxy::Listener {
public:
    /// @param requestTopic the base topic of the requests for bindings and for the time
    /// @param replyTopic the sub-path of the services "bind" and "unbind", empty for none
    /// @param uuid the client's own identity
    /// @param boundTopic sent with every binding: see `BindRequestData`
    /// @param listener may be null; must live until `terminate` has returned. A derived class also
    ///        passes uuid and listener to the virtual base `zym::common::BinderProxy`, which calls
    ///        it
    BinderMqttProxy(MqttClient& client, Topic const& requestTopic, Topic const& replyTopic,
                    zym::common::Uuid const& uuid, Topic const& boundTopic,
                    zym::common::BinderProxy::Listener* listener);

    void terminate() override;
    /// Terminates, without a message to the server.
    ~BinderMqttProxy() override;

    /// Binds, and waits up to 30 seconds more for the server's time.
    /// @return also what the server answered; NOT_SYNCHRONIZED: the server has agreed but its time
    ///         could not be read: the binding is neither complete nor ended, call `unbind`. A call
    ///         whose binding is cancelled by another thread returns CANCELLED while it waits for
    ///         the server's answer, and NOT_SYNCHRONIZED while it reads the time
    /// @throws std::bad_alloc nothing is bound
    zym::common::Binder::Error bindSync(zym::common::Uuid const& server,
                                        conv::SecondsDuration const& timeout) override;
    /// The listener is called when the server has refused, or has agreed and its time is known,
    /// however long that takes. It is called with NOT_SYNCHRONIZED when the time cannot be read at
    /// all: the server is bound then, and answers the next binding with ALREADY_BOUND, a success.
    /// @return SUCCESS: the request is sent; BUSY, ALREADY_BOUND or CANCELLED: not begun; otherwise
    ///         the request could not be sent, and the listener has been called with the same
    /// @throws std::system_error no thread for a timer; std::bad_alloc; nothing is bound, and the
    ///         listener has been called with FAILED if the binding had begun
    zym::common::Binder::Error bind(zym::common::Uuid const& server,
                                    conv::SecondsDuration const& timeout) override;
    /// Cancels a binding under way, and unbinds.
    /// @throws std::bad_alloc as `unbind`
    zym::common::Binder::Error unbindSync(conv::SecondsDuration const& timeout) override;
    /// Cancels a binding under way, and unbinds. The caller or the listener of a binding that waits
    /// for the server's answer gets CANCELLED.
    /// @param timeout all ones: until the server answers or `cancelUnbinding` is called
    /// @return SUCCESS: the request is sent; BUSY, NOT_BOUND or CANCELLED: not begun; otherwise the
    ///         request could not be sent, and the listener has been called with the same
    /// @throws std::system_error no thread for a timer; std::bad_alloc. The listener has then been
    ///         called with FAILED, and a binding still exists
    zym::common::Binder::Error unbind(conv::SecondsDuration const& timeout) override;
    /// Ends an unbinding under way without the server's answer: the binding is over on this side,
    /// as after a time-out, and the caller or the listener of the unbinding gets SUCCESS. The
    /// server may have unbound or not. Does nothing when none is under way. Waits, as `unbindSync`
    /// does, only for a call of `onBound` on another thread.
    void cancelUnbinding();

    /// As `SynchronizedTimeBaseMqttProxy::forceSync`.
    void forceTimeBaseSync() override;
    bool isTimeBaseSynchronized() const override;
    std::uint32_t timeBase() const override;

    /// The result of a binding or unbinding whose request ends with this code.
    static zym::common::Binder::Error requestReplyToBinderError(RequestReply::ErrorCode code);

protected:
    /// The server's time is known: completes the binding.
    void onTimeSynchronized() override;

    /// Terminates and waits for the calls under way on other threads. For the destructor of a
    /// derived class, before any of its members is destroyed.
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
    ZYM_MQTT_LOCAL void endBindingPhase(unsigned int phase, zym::common::Binder::Error error);
    ZYM_MQTT_LOCAL Begun beginUnbinding(RequestReplyClient::Listener* listener,
                                        conv::SecondsDuration const& timeout);
    ZYM_MQTT_LOCAL void sendUnbinding(Begun& begun, RequestReplyClient::Listener* listener,
                                      conv::SecondsDuration const& timeout);
    ZYM_MQTT_LOCAL zym::common::Binder::Error onUnbindReply(unsigned int phase,
                                                            RequestReply::ErrorCode code);
    ZYM_MQTT_LOCAL void endUnbindingPhase(unsigned int phase, zym::common::Binder::Error error);
    ZYM_MQTT_LOCAL void stopTimeBase();
    ZYM_MQTT_LOCAL void endWaits();
    ZYM_MQTT_LOCAL void endRequests();

    Topic boundTopic_;
    RequestReplyClient bindClient_;
    RequestReplyClient unbindClient_;
    SynchronizedTimeBaseMqttProxy timeBase_;
    std::shared_ptr<ActiveCalls> const calls_;   ///< operations, and calls of the listener
    std::shared_ptr<BinderPhases> const phases_; ///< which phases are under way
};

} // namespace mqtt
