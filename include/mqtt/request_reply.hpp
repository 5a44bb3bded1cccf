#pragma once

#include "mqtt/data.hpp"
#include "mqtt/export.hpp"
#include "mqtt/mutex.hpp"
#include "mqtt/request_reply_data.hpp"

#include <zym/common/lwjson.hpp>
#include <zym/common/timer.hpp>
#include <zym/common/uuid.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <thread>

namespace mqtt {

class ActiveCalls;

/// Follows the name of a service in the topic of a request, and of a reply.
ZYM_MQTT_EXPORT extern char const* const REQUEST_SUFFIX; // ??
ZYM_MQTT_EXPORT extern char const* const REPLY_SUFFIX;   // ?=

/// No payload. A message that carries exactly this type has no members of its own.
class ZYM_MQTT_EXPORT RequestReplyNoData : public RequestReplyData {
public:
    ~RequestReplyNoData() override;
    void deserialize(zym::common::lwjson::Deserializer& in) override;
    void serialize(zym::common::lwjson::Serializer& out) const override;
};

/// For messages without payload; one per program file that uses it.
static std::shared_ptr<RequestReplyNoData> const NO_DATA = std::make_shared<RequestReplyNoData>();

/// The common base of client and server of a request/reply service: its name, its place below the
/// base topic, and one endpoint for requests and one for replies.
///
/// With base "svc", sub-path "time", name "sync", no server identifier and a client u1, a request
/// is published on the level u1 below svc/time/sync??, and its reply on the level u1 below
/// svc/time/sync?=. A server identifier is a segment after the base.
class ZYM_MQTT_EXPORT RequestReply {
public:
    /// Outcome of a request. Travels as a number; codes without a name are legal and unchanged.
    enum class ErrorCode : std::uint8_t {
        NONE = 0, ///< no outcome yet
        SUCCESS = 1,
        NO_SERVER = 2,   ///< not produced here
        TIMEOUT = 3,     ///< no reply in time
        NO_LISTENER = 4, ///< the server has no listener
        PENDING = 5,     ///< sent; the reply is awaited
        BUSY = 6,        ///< the client already awaits a reply
        CANCELLED = 7,   ///< cancelled, or the client is terminated
        APPLICATION = 16 ///< the service's own codes begin here
    };

    /// The content of a request message.
    class ZYM_MQTT_EXPORT Request {
    public:
        Request() = default;
        Request(Request const&) = default;
        Request& operator=(Request const&) = default;
        virtual ~Request();

        Topic topic;                            ///< the sub-path
        std::string name;                       ///< of the service, without suffix
        zym::common::Uuid clientUuid;           ///< who sends the request
        zym::common::Uuid serverUuid;           ///< who answers; no topic segment when nil
        std::shared_ptr<RequestReplyData> data; ///< may be null
        std::uint32_t requestId = 0;            ///< chosen by the client, returned in the reply
    };

    /// The content of a reply message.
    class ZYM_MQTT_EXPORT Reply : public Request {
    public:
        Reply() = default;
        explicit Reply(Request const& request) : Request(request) {}
        Reply(Reply const&) = default;
        Reply& operator=(Reply const&) = default;
        ~Reply() override;

        ErrorCode error = ErrorCode::NONE;
    };

    /// @param base the topic that all topics of the service begin with
    /// @param name of the service
    /// @throws std::invalid_argument "Invalid Request/Reply name; should not contain any of '/'."
    ///         when the name begins or ends with "/"; with a "/" inside, replies are lost
    RequestReply(MqttClient& client, Topic const& base, Topic const& subPath,
                 std::string const& name);
    virtual ~RequestReply();
    RequestReply(RequestReply const&) = delete;
    RequestReply& operator=(RequestReply const&) = delete;

    std::string const& name() const { return name_; }
    /// The sub-path.
    Topic const& topic() const { return topic_; }

protected:
    MqttData<Request>& requests() { return requests_; }
    MqttData<Request> const& requests() const { return requests_; }
    MqttData<Reply>& replies() { return replies_; }

private:
    std::string name_;
    Topic topic_;
    MqttData<Request> requests_;
    MqttData<Reply> replies_;
};

/// Sends requests of one service and delivers their replies; one request at a time.
///
/// ### Threads
/// Every operation may be called from any thread, also from inside a listener's call, but not from
/// a communication state listener. On the MQTT client's worker thread, and in a listener's call on
/// the timer's thread, the operations that wait do not wait: they time out at once. A listener is
/// called with no lock held, on the thread that ends the request:
///  - the worker for a reply and for a time-out of `request`;
///  - the timer's thread when the time-out reply does not come back through the broker;
///  - the waiting thread for a time-out of `waitEndOfRequest`;
///  - the caller of `cancel` or `terminate`.
/// What it throws is logged and dropped.
///
/// The client may be destroyed at any time, also from inside its listener's call. On another thread
/// the destructor waits for such a call to return.
class ZYM_MQTT_EXPORT RequestReplyClient : public RequestReply,
                                           private MqttData<RequestReply::Reply>::Subscriber {
public:
    /// Is called once for each request, when it ends.
    class ZYM_MQTT_EXPORT Listener {
    public:
        /// How a request ended.
        struct Reply {
            ErrorCode error = ErrorCode::NONE;
            std::uint32_t requestId = 0;
            std::string name;
            zym::common::Uuid clientUuid;
            zym::common::Uuid serverUuid;
            std::shared_ptr<RequestReplyData> data;
        };

        /// May make the next request.
        /// @param data the object given to `request` for the reply; an empty payload when there was
        ///        none, the request was cancelled, or a wait for it timed out
        virtual void onReply(unsigned int requestId, std::string const& name,
                             zym::common::Uuid const& clientUuid,
                             zym::common::Uuid const& serverUuid, RequestReplyData const& data,
                             ErrorCode error) = 0;

    protected:
        ~Listener() = default;
    };

    /// @throws std::invalid_argument as `RequestReply`
    RequestReplyClient(MqttClient& client, Topic const& base, Topic const& subPath,
                       std::string const& name);
    /// As `release`.
    ~RequestReplyClient() override;

    /// Sends a request. Never waits. Passes on what writing the payload throws; after any exception
    /// nothing has been sent, and the listener is not called.
    ///
    /// When the time-out has passed, the client publishes a time-out reply, which ends the request
    /// when it comes back. If it does not come back within a second, it is published once more, and
    /// a second later the client ends the request itself. Without a connection a request does not
    /// end: it is queued, and its time-out reply too. If the MQTT client has refused a topic of the
    /// request, the request ends after its time-out, with or without a connection.
    /// @param listener may be null; must live until it is called
    /// @param clientUuid who sends the request; the last segment of the reply's topic
    /// @param requestData may be null
    /// @param replyData what the reply to this request is read into, on the worker thread; not used
    ///        after the request has ended; may be null
    /// @param requestIdOut gets the identifier: the steady clock in milliseconds, or the last
    ///        identifier of the process plus one, whichever is larger; may be null
    /// @param timeout seconds until the time-out reply is published; 0 publishes it at once, all
    ///        ones never
    /// @return PENDING: sent, or queued until there is a connection; BUSY: a request is under way;
    ///         CANCELLED: terminated
    /// @throws std::system_error no thread for the timer
    ErrorCode request(Listener* listener, zym::common::Uuid const& clientUuid,
                      zym::common::Uuid const& serverUuid,
                      std::shared_ptr<RequestReplyData> requestData,
                      std::shared_ptr<RequestReplyData> replyData, unsigned int* requestIdOut,
                      conv::SecondsDuration const& timeout);

    /// Sends a request and waits for its end. Passes on what writing the payload throws; then
    /// nothing has been sent.
    /// @param timeout seconds; 0 does not wait, `UINT32_MAX` waits without limit
    /// @return the reply's code, TIMEOUT, BUSY or CANCELLED
    ErrorCode requestWait(zym::common::Uuid const& clientUuid, zym::common::Uuid const& serverUuid,
                          std::shared_ptr<RequestReplyData> requestData,
                          std::shared_ptr<RequestReplyData> replyData,
                          conv::SecondsDuration const& timeout);

    /// Waits for the end of the request that is under way now, and ends it with TIMEOUT when the
    /// wait times out. A later request is neither ended nor reported.
    /// @param timeout seconds; 0 does not wait, `UINT32_MAX` waits without limit
    /// @return its outcome. If no request is under way: at once the outcome of the last one, or
    ///         NONE. A wait that times out in the instant in which its request ends returns
    ///         TIMEOUT, and so do later calls until the next request.
    ErrorCode waitEndOfRequest(conv::SecondsDuration const& timeout);
    /// The same for one request.
    /// @param requestId the identifier from `request`
    /// @return CANCELLED when another request has been made since
    ErrorCode waitEndOfRequest(unsigned int requestId, conv::SecondsDuration const& timeout);

    /// Cancels the request under way. Its listener is called with CANCELLED after the waits for the
    /// request have ended.
    /// @return SUCCESS, also when there was none
    ErrorCode cancel();

    /// Cancels the request under way; later ones are refused.
    void terminate();

    /// Terminates, and waits until no other thread is inside this client, in a wait or in a call of
    /// a listener. For destructors of derived and owning classes, while everything that a listener
    /// uses still exists. Do not hold a lock that a listener takes.
    void release() noexcept;

private:
    /// The request under way, or the last one.
    struct Notification {
        Listener* listener = nullptr;
        Listener::Reply reply; ///< with the object given for the reply as its data
    };
    struct Exchange;
    struct ListenerCall;

    ZYM_MQTT_LOCAL Request newRequest(zym::common::Uuid const& clientUuid,
                                      zym::common::Uuid const& serverUuid,
                                      std::shared_ptr<RequestReplyData> data) const;
    ZYM_MQTT_LOCAL ErrorCode begin(Listener* listener, Request request,
                                   std::shared_ptr<RequestReplyData> replyData,
                                   conv::SecondsDuration const& timeout) ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void send(Request const& request, Reply const& expected,
                             conv::SecondsDuration const& timeout) ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void endOldSubscription() ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void prepareTimeoutReply(Request const& request) ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL ErrorCode waitFor(conv::SecondsDuration const& timeout,
                                     ListenerCall& listenerCall, MutexLock& lock)
        ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void cancelRequest(ListenerCall& listenerCall, MutexLock& lock)
        ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void endRequest(ErrorCode error, std::shared_ptr<RequestReplyData> const& data,
                                   ListenerCall& listenerCall) ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void stopListening() noexcept ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void onTimer();
    ZYM_MQTT_LOCAL void handleTimeout(ListenerCall& listenerCall) ZYM_MQTT_REQUIRES(mutex_);
    void onMqttData(Reply const& reply, bool empty, int id) override;

    Notification pending_ ZYM_MQTT_GUARDED_BY(mutex_);
    Mutex mutex_; ///< taken before the mutexes of the endpoints and of the timer
    std::condition_variable ended_;
    std::condition_variable waiterLeft_;
    bool idle_ ZYM_MQTT_GUARDED_BY(mutex_) = true;
    std::atomic<bool> terminated_{false};
    zym::common::Timer timer_;
    MqttData<Reply> timeoutReply_; ///< published by the timer, never subscribed
    /// Belongs to the same request as `pending_`.
    std::shared_ptr<Exchange> exchange_ ZYM_MQTT_GUARDED_BY(mutex_);
    std::shared_ptr<ActiveCalls> const calls_; ///< those that wait or end a request
    MqttClient& mqtt_;
    /// Ends requests, so that no wait may hold it up.
    std::thread::id timerThread_ ZYM_MQTT_GUARDED_BY(mutex_);
    /// The timer's thread may still be inside a listener: `terminate` does not wait for it.
    std::atomic<bool> timerHasCalledListener_{false};
    /// Unsubscribing from the reply topic of an earlier request has failed.
    bool hasOldSubscription_ ZYM_MQTT_GUARDED_BY(mutex_) = false;
};

/// Answers the requests of one service, from all clients, one after the other. A request that
/// arrives twice is handled twice. Of two servers for the same service both handle every request,
/// and the client takes the first reply.
///
/// ### Threads
/// The listener is called with no lock held on the MQTT client's worker thread, which does nothing
/// else meanwhile. Every operation may be called from any thread; on the worker `unsubscribeWait`
/// does not wait.
///
/// The server may be destroyed at any time, also from inside its listener's call: that request then
/// gets no reply. On another thread the destructor waits for such a call to return.
class ZYM_MQTT_EXPORT RequestReplyServer : public RequestReply,
                                           private MqttData<RequestReply::Request>::Subscriber {
public:
    /// Handles requests.
    class ZYM_MQTT_EXPORT Listener {
    public:
        /// Handles one request. What it returns is sent; when it throws, no reply is sent.
        /// @param requestData the object given to `subscribe`; overwritten by the next request
        /// @param error SUCCESS; set it to an application code, 16 or above, to report a failure
        /// @return the reply's payload; null for none
        virtual std::shared_ptr<RequestReplyData> onRequest(std::string const& name,
                                                            zym::common::Uuid const& clientUuid,
                                                            zym::common::Uuid const& serverUuid,
                                                            RequestReplyData const& requestData,
                                                            ErrorCode& error) = 0;

    protected:
        ~Listener() = default;
    };

    /// @throws std::invalid_argument as `RequestReply`
    RequestReplyServer(MqttClient& client, Topic const& base, Topic const& subPath,
                       std::string const& name);
    /// As `release`.
    ~RequestReplyServer() override;

    /// Starts to serve. A second call replaces listener and identifier, and every request is then
    /// answered twice: unsubscribe first.
    /// @param listener null: requests are answered with NO_LISTENER
    /// @param serverUuid nil: serves requests that name no server
    /// @param requestData what requests are read into; null for none
    /// @return as `MqttClient::subscribe`
    MqttClient::Error subscribe(Listener* listener, zym::common::Uuid const& serverUuid,
                                std::shared_ptr<RequestReplyData> requestData);

    /// Stops serving. A request that is being handled is still answered.
    /// @return as `MqttClient::unsubscribe`
    MqttClient::Error unsubscribe();
    /// Stops serving and waits up to 5 seconds for the broker's acknowledgement; not to be called
    /// on the MQTT client's worker thread.
    /// @return as `MqttClient::unsubscribeWait`
    MqttClient::Error unsubscribeWait();

    /// Stops serving, and waits for a request being handled on another thread. For destructors of
    /// owning classes, while everything that the listener uses still exists. Do not hold a lock
    /// that the listener takes.
    void release() noexcept;

    /// The common beginning of the topics of all requests: without a client's segment or a
    /// wildcard.
    Topic requestTopic() const;

private:
    void onMqttData(Request const& request, bool empty, int id) override;

    std::atomic<Listener*> listener_{nullptr};
    std::shared_ptr<ActiveCalls> const calls_; ///< those of the listener
};

// How requests and replies travel.
template <>
ZYM_MQTT_EXPORT MqttData<RequestReply::Request>::MqttData(MqttClient& client, Topic const& topic);
template <>
ZYM_MQTT_EXPORT void MqttData<RequestReply::Request>::serialize(Topic const& topic,
                                                                std::string& payload,
                                                                RequestReply::Request const& value);
template <>
ZYM_MQTT_EXPORT void
MqttData<RequestReply::Request>::deserialize(Topic const& topic, std::string const& payload,
                                             bool empty, RequestReply::Request& value);
template <>
ZYM_MQTT_EXPORT void MqttData<RequestReply::Request>::getPublishTopic(Topic& topic);
template <>
ZYM_MQTT_EXPORT void MqttData<RequestReply::Request>::getSubscribeTopic(Topic& topic);
template <>
ZYM_MQTT_EXPORT MqttData<RequestReply::Reply>::MqttData(MqttClient& client, Topic const& topic);
template <>
ZYM_MQTT_EXPORT void MqttData<RequestReply::Reply>::serialize(Topic const& topic,
                                                              std::string& payload,
                                                              RequestReply::Reply const& value);
template <>
ZYM_MQTT_EXPORT void
MqttData<RequestReply::Reply>::deserialize(Topic const& topic, std::string const& payload,
                                           bool empty, RequestReply::Reply& value);
template <>
ZYM_MQTT_EXPORT void MqttData<RequestReply::Reply>::getPublishTopic(Topic& topic);
template <>
ZYM_MQTT_EXPORT void MqttData<RequestReply::Reply>::getSubscribeTopic(Topic& topic);

extern template class MqttData<RequestReply::Request>;
extern template class MqttData<RequestReply::Reply>;

/// Writes the upper-case name of an outcome. A service's own codes are written relative to
/// APPLICATION: 17 is "APPLICATION + 1".
ZYM_MQTT_EXPORT std::ostream& operator<<(std::ostream& out, RequestReply::ErrorCode const& error);

} // namespace mqtt
