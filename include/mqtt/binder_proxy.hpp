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
/// ### Threads
/// Every operation may be called from any thread, also from inside the listener's calls, except
/// that `bindSync` and `unbindSync` must not be called on the MQTT client's worker thread; none
/// may be called from a communication state listener. The listener is called with no lock held:
/// on the worker thread, or on that of the caller for a blocking operation and for a binding that
/// `unbind` calls off.
///
/// ### Lifetime
/// The proxy may be destroyed at any time, from inside the listener's calls too, and while others
/// are in a blocking operation, which then returns, or in `unbind`.
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
    zym::common::Binder::Error bindSync(zym::common::Uuid const& server,
                                        conv::SecondsDuration const& timeout) override;
    /// The listener is told when the server has refused, or has agreed and its time is known,
    /// however long that takes.
    /// @return FAILED: the request could not be sent; `unbind` is then the way out
    zym::common::Binder::Error bind(zym::common::Uuid const& server,
                                    conv::SecondsDuration const& timeout) override;
    /// Calls off a binding under way, whose caller or listener gets CANCELLED, and unbinds.
    zym::common::Binder::Error unbindSync(conv::SecondsDuration const& timeout) override;
    /// @copydoc unbindSync
    zym::common::Binder::Error unbind(conv::SecondsDuration const& timeout) override;

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
    void onReply(unsigned int requestId, std::string const& name,
                 zym::common::Uuid const& clientUuid, zym::common::Uuid const& serverUuid,
                 RequestReplyData const& data, RequestReply::ErrorCode error) override;
    ZYM_MQTT_LOCAL zym::common::Binder::Error onBindReply(RequestReply::ErrorCode code,
                                                          bool blocking);
    ZYM_MQTT_LOCAL zym::common::Binder::Error onUnbindReply(RequestReply::ErrorCode code);
    ZYM_MQTT_LOCAL std::shared_ptr<BindRequestData> bindRequest() const;
    ZYM_MQTT_LOCAL zym::common::Binder::Error beginUnbinding();

    Topic boundTopic_;
    RequestReplyClient bindClient_;
    RequestReplyClient unbindClient_;
    SynchronizedTimeBaseMqttProxy timeBase_;
    std::shared_ptr<Visitors> const callers_; ///< inside an operation that waits or calls off
    std::shared_ptr<void> const alive_;       ///< expires with this object
};

} // namespace mqtt
