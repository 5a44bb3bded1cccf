#pragma once

#include "mqtt/data.hpp"
#include "mqtt/export.hpp"

#include <zym/common/lwjson.hpp>
#include <zym/common/timer.hpp>
#include <zym/common/uuid.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace mqtt {

class Visitors;

/// Follows the name of a service in the topic of a request, and of a reply.
ZYM_MQTT_EXPORT extern char const* const REQUEST_SUFFIX; // ??
ZYM_MQTT_EXPORT extern char const* const REPLY_SUFFIX;   // ?=

/// What a request or a reply carries: members of its own in the JSON object of the message.
///
/// Held by shared pointers. One object serves all messages of an endpoint: reading writes into it,
/// on the client's worker thread. The members "$reqId" and "$err" belong to the envelope; of a key
/// that stands twice the first one counts, so a payload cannot change them.
class ZYM_MQTT_EXPORT RequestReplyData {
public:
    RequestReplyData() = default;
    RequestReplyData(RequestReplyData const&) = default;
    RequestReplyData& operator=(RequestReplyData const&) = default;
    virtual ~RequestReplyData();
    /// Reads the payload's members.
    /// @throws std::exception a request is then dropped, a reply delivered all the same
    virtual void deserialize(zym::common::lwjson::Deserializer& in) = 0;
    /// Appends the payload's members, keys and values.
    virtual void serialize(zym::common::lwjson::Serializer& out) const = 0;
};

/// No payload. A message that carries exactly this type has no members of its own.
class ZYM_MQTT_EXPORT RequestReplyNoData : public RequestReplyData {
public:
    ~RequestReplyNoData() override;
    void deserialize(zym::common::lwjson::Deserializer& in) override;
    void serialize(zym::common::lwjson::Serializer& out) const override;
};

/// For messages without payload; one per program file that uses it.
static std::shared_ptr<RequestReplyNoData> const NO_DATA = std::make_shared<RequestReplyNoData>();

/// What client and server of a request/reply service have in common: its name, its place below
/// the base topic, and an endpoint each for requests and replies.
///
/// With base "svc", sub-path "time", name "sync", no server identifier and a client u1, a request
/// travels below svc/time/sync?? on the level u1, and its reply below svc/time/sync?= on the same;
/// a server identifier would be a segment after the base.
class ZYM_MQTT_EXPORT RequestReply {
public:
    /// Outcome of a request. Travels as a number; codes without a name are legal and unchanged.
    enum class ErrorCode : std::uint8_t {
        NONE = 0, ///< no outcome yet
        SUCCESS = 1,
        NO_SERVER = 2,   ///< not produced here
        TIMEOUT = 3,     ///< no reply in time
        NO_LISTENER = 4, ///< the server has nobody to ask
        PENDING = 5,     ///< sent; the reply is awaited
        BUSY = 6,        ///< the client awaits a reply already
        CANCELLED = 7,   ///< called off, or the client is terminated
        APPLICATION = 16 ///< from here on the codes are the service's own
    };

    /// What a request message says.
    class ZYM_MQTT_EXPORT Request {
    public:
        Request() = default;
        Request(Request const&) = default;
        Request& operator=(Request const&) = default;
        virtual ~Request();

        Topic topic;                            ///< the sub-path
        std::string name;                       ///< of the service, without suffix
        zym::common::Uuid clientUuid;           ///< who asks
        zym::common::Uuid serverUuid;           ///< who is asked; no topic segment when nil
        std::shared_ptr<RequestReplyData> data; ///< may be null
        std::uint32_t requestId = 0;            ///< chosen by the client, returned in the reply
    };

    /// What a reply message says.
    class ZYM_MQTT_EXPORT Reply : public Request {
    public:
        Reply() = default;
        explicit Reply(Request const& request) : Request(request) {}
        Reply(Reply const&) = default;
        Reply& operator=(Reply const&) = default;
        ~Reply() override;

        ErrorCode error = ErrorCode::NONE;
    };

    /// @param base see above
    /// @param name of the service
    /// @throws std::invalid_argument "Invalid Request/Reply name; should not contain any of '/'."
    ///         when the name begins or ends with "/"
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
/// Every operation may be called from any thread, also from inside a listener's call. On the MQTT
/// client's worker thread, and in a call on the timer's, those that wait do not wait: their time
/// has run out at once. A listener is called with no lock held, on the thread that ends the
/// request: the worker for a reply and for a time-out of `request`, the timer's thread for a
/// time-out that the broker does not carry, the waiting thread for one of `waitEndOfRequest`, the
/// caller of `cancel` or `terminate`. What it throws is dropped. Not to be called from a
/// communication state listener.
///
/// The client may be destroyed at any time, also from inside its listener's call. On another thread
/// the destructor waits for such a call to return.
class ZYM_MQTT_EXPORT RequestReplyClient : public RequestReply,
                                           private MqttData<RequestReply::Reply>::Subscriber {
public:
    /// Told how a request ended, once.
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
        /// @param data the object given to `request` for the reply; an empty payload when the
        ///        request was called off or a wait for it ran out, or none was given
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
    /// Terminates.
    ~RequestReplyClient() override;

    /// Sends a request. Never waits. What writing the payload throws comes out of here; then, as
    /// with any exception, nothing has been sent and the listener is not told.
    ///
    /// When its time has run out the client publishes a time-out reply, which ends the request when
    /// it comes back. If it does not come back within a second, it is published once more, and a
    /// second later the client ends the request itself. Without a connection a request does not
    /// end: it is queued, and its time-out reply too. But a request whose topics were refused at
    /// once ends when its time has run out, with a connection or without.
    /// @param listener may be null; must live until it is told
    /// @param clientUuid who asks; the reply's topic ends in it
    /// @param requestData may be null
    /// @param replyData what the reply to this request is read into, on the worker thread, and
    ///        nothing after the request has ended; may be null
    /// @param requestIdOut where to put the identifier, the steady clock in milliseconds or, when
    ///        that is not later than the last one of the process, the last one plus one; may be
    ///        null
    /// @param timeout seconds until the time-out reply is published; 0 publishes it at once, all
    ///        ones never
    /// @return PENDING: sent, or queued until there is a connection; BUSY: a request is under way;
    ///         CANCELLED: terminated
    /// @throws std::system_error when there is no thread to be had for the timer
    ErrorCode request(Listener* listener, zym::common::Uuid const& clientUuid,
                      zym::common::Uuid const& serverUuid,
                      std::shared_ptr<RequestReplyData> requestData,
                      std::shared_ptr<RequestReplyData> replyData, unsigned int* requestIdOut,
                      conv::SecondsDuration const& timeout);

    /// Sends a request and waits for its end. What writing the payload throws comes out of here,
    /// and nothing has been sent then.
    /// @param timeout seconds; 0 does not wait, all ones waits without limit
    /// @return the reply's code, TIMEOUT, BUSY or CANCELLED
    ErrorCode requestWait(zym::common::Uuid const& clientUuid, zym::common::Uuid const& serverUuid,
                          std::shared_ptr<RequestReplyData> requestData,
                          std::shared_ptr<RequestReplyData> replyData,
                          conv::SecondsDuration const& timeout);

    /// Waits for the end of the request that is under way now, and ends it itself, with TIMEOUT,
    /// when the wait runs out. A later request is neither ended nor reported.
    /// @param timeout seconds; 0 does not wait, all ones waits without limit
    /// @return its outcome; at once that of the last request when none is under way, NONE before
    ///         the first. A wait that runs out in the instant in which its request ends returns
    ///         TIMEOUT, and so do later calls until the next request.
    ErrorCode waitEndOfRequest(conv::SecondsDuration const& timeout);
    /// The same for one request.
    /// @param requestId what `request` has put out
    /// @return CANCELLED when another request has been made since
    ErrorCode waitEndOfRequest(unsigned int requestId, conv::SecondsDuration const& timeout);

    /// Calls the request under way off: its listener is told CANCELLED, after everybody who waits
    /// for it has been let go.
    /// @return SUCCESS, whether or not there was one
    ErrorCode cancel();

    /// Calls the request under way off; there will be no other.
    void terminate();

    /// Terminates, and waits until nobody is inside this client on another thread, in a wait or in
    /// a call to a listener. For destructors of classes around this one, before anything is gone
    /// that a listener needs. Do not hold a lock that a listener takes.
    void release() noexcept;

private:
    /// One request, for those who end it and those who wait for it: they may wake up when the next
    /// request is under way. Made before the request leaves, so that its end needs no memory.
    struct Outcome {
        Listener::Reply reply; ///< what the listener is told
        bool ended = false;
        int waiters = 0;
    };
    /// The request under way, or the last one.
    struct Notification {
        Listener* listener = nullptr;
        ErrorCode error = ErrorCode::NONE;
        std::uint32_t requestId = 0;
        std::string name;
        zym::common::Uuid clientUuid;
        zym::common::Uuid serverUuid;
        std::shared_ptr<RequestReplyData> data = NO_DATA;
    };
    using Lock = std::unique_lock<std::mutex>;
    using Ending = std::pair<Listener*, std::shared_ptr<Listener::Reply>>;

    ZYM_MQTT_LOCAL ErrorCode begin(Listener* listener, Request request,
                                   std::shared_ptr<RequestReplyData> replyData,
                                   conv::SecondsDuration const& timeout, Lock const& lock);
    ZYM_MQTT_LOCAL void send(Request const& request, Reply const& expected,
                             conv::SecondsDuration const& timeout);
    ZYM_MQTT_LOCAL Request newRequest(zym::common::Uuid const& clientUuid,
                                      zym::common::Uuid const& serverUuid,
                                      std::shared_ptr<RequestReplyData> data) const;
    ZYM_MQTT_LOCAL void endLeftSubscription();
    ZYM_MQTT_LOCAL void prepareTimeout(Request const& request);
    ZYM_MQTT_LOCAL void armTimer(std::chrono::milliseconds period);
    ZYM_MQTT_LOCAL ErrorCode waitFor(conv::SecondsDuration const& timeout, Lock& lock);
    ZYM_MQTT_LOCAL Ending callOff(Lock& lock);
    ZYM_MQTT_LOCAL Ending endRequest(Notification& pending, ErrorCode error,
                                     std::shared_ptr<RequestReplyData> const& data,
                                     Lock const& lock);
    ZYM_MQTT_LOCAL Ending endRequest(Notification& pending, ErrorCode error, Lock const& lock);
    ZYM_MQTT_LOCAL void stopListening() noexcept;
    ZYM_MQTT_LOCAL void onTimer();
    ZYM_MQTT_LOCAL Ending timeOut(Lock const& lock);
    void onMqttData(Reply const& reply, bool empty, int id) override;

    Notification pending_;
    std::shared_ptr<Outcome> outcome_; ///< of the request under way, or the last one
    std::mutex mutex_;                 ///< all that is here, but for the endpoints and the timer
    std::condition_variable ended_;
    std::condition_variable waiterLeft_;
    bool idle_ = true;
    std::atomic<bool> terminated_{false};
    zym::common::Timer timer_;
    MqttData<Reply> timeoutReply_;              ///< published by the timer, never subscribed
    std::chrono::steady_clock::time_point due_; ///< when
    std::shared_ptr<Visitors> const callers_;   ///< waiting, or ending a request
    MqttClient& mqtt_;
    std::shared_ptr<RequestReplyData> expected_; ///< what only a reply to this request is read into
    bool refused_ = false;          ///< the request cannot be answered, or has not left
    int timeoutReplies_ = 0;        ///< published for this request
    std::thread::id timerThread_;   ///< which ends requests, so that no wait may hold it up
    bool timerHasTold_ = false;     ///< and may be inside a listener: `terminate` does not wait
    bool subscriptionLeft_ = false; ///< of an earlier request
};

/// Answers the requests of one service, of all clients, one after the other. A request that comes
/// twice is handled twice. Where two servers serve the same, both handle every request, and the
/// client takes the first reply.
///
/// ### Threads
/// The listener is called on the MQTT client's worker thread with no lock held; whatever else that
/// thread has to do waits meanwhile. Every other operation may be called from any thread, except
/// that `unsubscribeWait` waits.
///
/// The server may be destroyed at any time, also from inside its listener's call: that request then
/// gets no reply. On another thread the destructor waits for such a call to return.
class ZYM_MQTT_EXPORT RequestReplyServer : public RequestReply,
                                           private MqttData<RequestReply::Request>::Subscriber {
public:
    /// Handles requests.
    class ZYM_MQTT_EXPORT Listener {
    public:
        /// Handles one request. Whatever it returns is sent; when it throws, nothing is.
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
    /// Unsubscribes.
    ~RequestReplyServer() override;

    /// Starts to serve. A second call takes the place of the first, and every request is then
    /// answered twice: unsubscribe first.
    /// @param listener null: requests are answered with NO_LISTENER
    /// @param serverUuid nil: serves requests that name no server
    /// @param requestData what requests are read into; null for none
    /// @return as `MqttClient::subscribe`
    MqttClient::Error subscribe(Listener* listener, zym::common::Uuid const& serverUuid,
                                std::shared_ptr<RequestReplyData> requestData);

    /// Stops serving. A request being handled still is.
    /// @return as `MqttClient::unsubscribe`
    MqttClient::Error unsubscribe();
    /// Stops serving and waits up to 5 seconds for the broker's acknowledgement; not to be called
    /// on the MQTT client's worker thread.
    /// @return as `MqttClient::unsubscribeWait`
    MqttClient::Error unsubscribeWait();

    /// Stops serving, and waits for a request being handled on another thread. For destructors of
    /// classes around this one, before anything is gone that the listener needs. Do not hold a
    /// lock that the listener takes.
    void release() noexcept;

    /// What the topics of all requests begin with; no client segment, no wildcard.
    Topic requestTopic() const;

private:
    void onMqttData(Request const& request, bool empty, int id) override;

    std::atomic<Listener*> listener_{nullptr};
    std::shared_ptr<void> const alive_; ///< expires with this object
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

/// Writes the upper-case name of an outcome. The codes of a service follow on "APPLICATION": 17 is
/// "APPLICATION + 1".
ZYM_MQTT_EXPORT std::ostream& operator<<(std::ostream& out, RequestReply::ErrorCode const& error);

} // namespace mqtt
