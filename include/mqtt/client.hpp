#pragma once

#include "mqtt/export.hpp"
#include "mqtt/failure.hpp"
#include "mqtt/mosquittopp.hpp"
#include "mqtt/statistics.hpp"
#include "mqtt/topic.hpp"

#include <conv/com_state.hpp>
#include <conv/seconds_duration.hpp>
#include <zym/common/uuid.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace mqtt {

struct ConnectionOptions; // mqtt/connection_options.hpp
class EndpointReport;

/// One connection to an MQTT broker.
///
/// A client runs its network step on a worker thread of its own from construction to
/// destruction, reconnects by itself with a growing back-off, keeps a registry of
/// subscriptions and hands incoming messages to subscribers, and publishes with or without
/// waiting. What is published while there is no connection is queued and sent, in order,
/// before the state becomes connected again.
///
/// ### Threads
/// Every operation may be called from any thread, also from inside a subscriber or a state
/// listener, except where an operation says otherwise. Subscribers and listeners are called
/// on the worker thread (a listener sees "connecting" on the thread that called `connect`).
/// On the worker thread no operation waits, because that thread handles what the operation would
/// wait for: it returns as if its time were up.
///
/// ### Ownership
/// The client owns neither subscribers nor listeners. It must outlive everything built on
/// it, and must not be destroyed on its own worker thread. In a process made by `fork` that thread
/// does not exist: the client must neither be used nor destroyed there.
///
/// The worker is named "zym-mqtt" and has the system's usual stack, because it calls your code. It
/// blocks all signals but those that a fault raises in the thread itself (such as SIGSEGV). A
/// process that is started in a callback inherits this signal mask, unless you reset it.
///
/// ### Limits
/// The broker library waits with select(), which cannot wait for a descriptor of 1024 (FD_SETSIZE)
/// or above. A client whose socket, or whose internal socket pair, gets such a descriptor works
/// too, but may take up to 10 ms to send what another thread publishes.
class ZYM_MQTT_EXPORT MqttClient : private mosqpp::mosquittopp {
public:
    /// Outcome of an operation. 0 to 16 are the broker library's codes, passed on unchanged;
    /// codes without a name here are legal too (18: the topic is not valid UTF-8).
    enum class Error : int {
        CONNECTION_PENDING = -1, ///< the state forbids the call; nothing was changed
        SUCCESS = 0,
        NO_MEMORY = 1, ///< also: a limit of the queue is reached, see `ConnectionOptions`
        UNACCEPTABLE_PROTOCOL = 2,
        INVALID_PARAMETER = 3, ///< bad topic, quality of service, port, ...
        NO_CONN = 4,           ///< there is no connection
        CONN_REFUSED = 5,
        NOT_FOUND = 6, ///< see `unsubscribe`
        CONN_LOST = 7,
        TLS = 8,
        PAYLOAD_SIZE =
            9, ///< payload, topic and four bytes (QoS 0: two) exceed 268,435,455, a will 65,535
        NOT_SUPPORTED = 10,
        AUTH = 11,
        ACL_DENIED = 12,
        UNKNOWN = 13,
        ERRNO = 14, ///< a system call failed; `errno` of the calling thread says why
        EAI = 15,   ///< the host name could not be resolved
        PROXY = 16,
        TIMEOUT = 256 ///< a wait ran out; what was asked for may still happen
    };

    /// The broker's answer to a connection request.
    enum class ConnectionError : std::uint8_t {
        SUCCESS = 0,
        UNACCEPTABLE_PROTOCOL = 1,
        IDENTIFIER_REJECTED = 2,
        BROKER_UNAVAILABLE = 3
    };

    /// Why a connection ended: 0 because `disconnect` was called, anything else otherwise.
    enum class DisconnectionError : std::uint8_t { SUCCESS = 0, UNEXPECTED = 1 };

    /// Called at every change of the communication state.
    class Listener {
    public:
        /// Called after each change, with the client's main and state locks held: it may publish,
        /// subscribe, unsubscribe, register and unregister listeners; it must not wait, nor take
        /// a lock that another thread holds while calling the client. `connect` and `disconnect`
        /// return CONNECTION_PENDING in here. An exception that it throws is logged and dropped.
        virtual void onComStateChanged(conv::ComState state) = 0;

    protected:
        ~Listener() = default;
    };

    /// Receives the messages of the topics it was subscribed to.
    class Subscriber {
    public:
        /// Called on the worker thread, one message at a time, in the order of arrival, with
        /// no lock of the client held: every operation that does not wait may be called.
        /// An exception that it throws is logged and dropped, and the other subscribers are
        /// called.
        /// @param tag the value given to `subscribe`
        /// @param topic the message's topic, parsed; never the pattern
        /// @param payload any bytes; empty when a retained message was cleared
        virtual void onMqttMessage(int tag, Topic const& topic, std::string const& payload) = 0;
        virtual ~Subscriber() = default;
    };

    /// One entry of the registry.
    struct Subscription {
        Topic topic; ///< the subscribed topic or pattern
        /// In the order of subscription; the same subscriber may be here more than once.
        std::vector<std::pair<Subscriber*, int>> subscribers;
    };

    /// One publication kept until there is a connection.
    struct Publish {
        Topic topic;
        std::string payload;
        int qos;
        bool retain;
    };

    /// The keep-alive interval of every connection: 30 seconds. A broker that does not
    /// answer any more is noticed after twice that time and some seconds.
    static conv::SecondsDuration const HEART_BEAT_RATE;
    /// A usual time-out for the operations that wait: 5 seconds. The client itself does not
    /// use it.
    static conv::SecondsDuration const COMMUNICATION_DELAY;

    /// Starts the worker thread and, with `connectNow`, connects: the constructor then blocks
    /// as `connect` with 5 seconds does. If that fails the client goes on trying, unless the port
    /// is out of range; `communicationState` shows the result. Makes the process ignore SIGPIPE;
    /// libmosquitto 2.0 replaces a handler of it, too.
    /// @param id the broker allows one connection per identifier
    /// @param persistent whether the broker keeps the session while there is no connection: only
    ///        then is no QoS 2 publication lost when a connection breaks
    /// @param name not used
    /// @param host host name, address, or the path of a unix socket (with port 0)
    /// @param port 0 to 65535
    /// @throw std::runtime_error the libmosquittopp found at run time is of another minor version
    ///        than the one compiled against, and not safe to call; the text has both versions
    /// @throws std::system_error the system has no thread for the worker
    /// @throws std::bad_alloc from `connect` too: the client is completely destroyed then
    MqttClient(zym::common::Uuid const& id, bool persistent, std::string const& name,
               std::string const& host, int port, bool connectNow);
    /// The same, with credentials or encryption; include `mqtt/connection_options.hpp`.
    /// @throw std::invalid_argument `setOptions` would return INVALID_PARAMETER
    MqttClient(zym::common::Uuid const& id, bool persistent, std::string const& name,
               std::string const& host, int port, bool connectNow,
               ConnectionOptions const& options);

    /// Unsubscribes every topic at the broker, ends the worker thread, drops unsent publications
    /// and closes the connection without a DISCONNECT packet, so that the broker publishes the
    /// will. No listener is called. Waits for a subscriber or listener that is being called; then
    /// up to two seconds if the broker does not answer. If the system is looking for the address of
    /// a host name, waits for the end of that.
    ~MqttClient() override;

    MqttClient(MqttClient const&) = delete;
    MqttClient& operator=(MqttClient const&) = delete;

    /// The MQTT client identifier of a client: the base64url text of its identifier.
    static std::string clientId(zym::common::Uuid const& id);

    /// Connects and waits until the broker accepts. Blocks for the TCP connection as long as the
    /// system tries, and then for `timeout`.
    /// @param host "" for the last one
    /// @param port negative for the last one
    /// @param timeout seconds; 0 does not wait, `UINT32_MAX` waits without limit
    /// @return
    ///  - SUCCESS: connected, queued publications are sent;
    ///  - TIMEOUT: not yet; the client goes on trying;
    ///  - CONNECTION_PENDING: only a disconnected client (state 1) can be connected, and not from
    ///    inside a subscriber or a state listener;
    ///  - INVALID_PARAMETER: the port is out of range; nothing was changed;
    ///  - any other: the broker library's code; the state is "connecting" and the client
    ///    tries again after 0.5, 2, 4.5, 8, 12.5, 15, 15, ... seconds. All clients of the
    ///    process share one count of attempts. A client that connects resets it. A TCP connection
    ///    resets it too, even if the broker then refuses the client: the next attempt follows
    ///    after half a second.
    Error connect(std::string host, int port, conv::SecondsDuration timeout);

    /// Ends the connection: no more retries, and the broker does not publish the will. Messages
    /// that arrive meanwhile are dropped; what is published from now on is queued, and so is what
    /// was queued and not sent yet. From here on the client does not become connected, unless
    /// `connect` is called again.
    /// @param timeout seconds; 0 does not wait, `UINT32_MAX` waits without limit. A subscriber that
    ///        keeps the worker busy adds up to a second.
    /// @return SUCCESS; TIMEOUT; CONNECTION_PENDING from inside a state listener; NO_CONN without a
    ///         connection to end: attempts to connect go on, `giveUp` ends them
    Error disconnect(conv::SecondsDuration timeout);

    /// Ends the attempts to connect, which `disconnect` does not end while there is no connection.
    /// A connection that is made, or being made, is ended as by `disconnect`. Does not wait: the
    /// state becomes "disconnected" when the attempt under way, or the time between two attempts,
    /// is over; a pause takes effect after that. `connect` starts again.
    void giveUp();

    /// Stops all network traffic, keep-alives too, until `resume`. Takes effect at the end of
    /// the network step under way. Saves the processor time that a disconnected client takes.
    void pause();
    /// Ends a pause, within 500 ms. No connection is completed during a pause.
    void resume();

    conv::ComState communicationState() const { return comState_; }

    /// Whether the calling thread is this client's worker, on which no operation waits.
    bool onWorkerThread() const;

    /// Adds a listener unless it is registered; null is ignored. From inside a listener it takes
    /// effect with the next change of the state; on any other thread it waits until no listener is
    /// being called.
    void registerListener(Listener* listener);
    /// Removes a listener; an unknown one is ignored. When it returns the listener is not
    /// being called and will not be, unless this is called from inside a listener: then it
    /// takes effect with the next change of the state.
    void unregisterListener(Listener* listener);

    /// Sets the message that the broker publishes when this client's connection breaks.
    /// @return SUCCESS; CONNECTION_PENDING unless the client is disconnected (state 1);
    ///         INVALID_PARAMETER for an empty or wildcard topic or a QoS outside 0 to 2;
    ///         PAYLOAD_SIZE; 18 for a topic that is not UTF-8
    Error setWill(Topic const& topic, std::string const& payload, int qos, bool retain);
    /// @return SUCCESS, or CONNECTION_PENDING unless the client is disconnected (state 1)
    Error clearWill();

    /// Replaces all options. Limits take effect at once, and drop nothing that is queued before the
    /// next publication; the others with the next `connect`.
    /// @return SUCCESS; CONNECTION_PENDING unless the client is disconnected (state 1);
    ///         INVALID_PARAMETER: options that MQTT cannot carry or that contradict each other,
    ///         such as a certificate without its key. Also for a client that has had options with
    ///         TLS: no TLS, or a pre-shared key in place of certificates and the reverse
    Error setOptions(ConnectionOptions const& options);

    /// Why the last attempt to connect failed, or the last connection ended unintendedly; the
    /// reason is NONE if there was no such thing since the last `connect`. Stays when the client is
    /// connected again. A state listener that is told "connection lost" finds the reason here.
    Failure lastFailure() const;

    /// What this client has done so far. In any thread, also in a callback; waits for nothing that
    /// takes longer than sending the queue.
    Statistics statistics() const;

    /// Registers a subscriber for a topic or pattern and subscribes at the broker, at QoS 0.
    /// Without a connection the registration is made too, and reaches the broker with the next
    /// connection. The same subscriber may be registered more than once.
    ///
    /// Does not wait for the broker. If the broker refuses, no message comes: the log and the
    /// statistics show that. A later `publishWait` at QoS 1 or 2 that succeeds, with a connection,
    /// shows that the broker has handled the subscription.
    ///
    /// A message goes to one entry of the registry only: to the one with exactly its topic
    /// or else to the first matching pattern in byte order ("a/#" before "a/+").
    /// @param tag passed on with every message; never sent
    /// @return SUCCESS, or why nothing was registered: INVALID_PARAMETER for an empty or
    ///         invalid topic, 18 for one that is not UTF-8
    [[nodiscard]] Error subscribe(Topic const& topic, Subscriber* subscriber, int tag);

    /// Removes the first registration of the subscriber on that topic.
    ///
    /// Does not wait: the subscriber may still be called for the message being dispatched.
    /// Use `release` before destroying a subscriber.
    /// @param mid where to put the message id of the broker's acknowledgement; may be null
    /// @return NOT_FOUND when there was no such registration, and also when other
    ///         registrations of that topic remain; otherwise SUCCESS, or NO_CONN when
    ///         there is no connection: the registration is removed all the same
    Error unsubscribe(Topic const& topic, Subscriber* subscriber, int* mid);
    /// The same, for those who do not need the message id.
    Error unsubscribe(Topic const& topic, Subscriber* subscriber);
    /// Like `unsubscribe`, and waits for the broker's acknowledgement.
    /// @param timeout seconds; `UINT32_MAX` waits without limit
    /// @return as `unsubscribe`, or TIMEOUT
    Error unsubscribeWait(Topic const& topic, Subscriber* subscriber,
                          conv::SecondsDuration timeout);

    /// Removes every registration of a subscriber and waits until the worker thread is not
    /// inside a call to it. On the worker thread itself, which may be inside such a call, it does
    /// not wait. Afterwards the subscriber is never called again and may be destroyed.
    /// Do not hold a lock that the subscriber's callback takes. A null pointer is ignored.
    void release(Subscriber* subscriber) noexcept;

    /// Publishes without waiting. Without a connection the publication is queued; neither that
    /// queue nor the data that a connected broker has not read yet has a limit, unless
    /// `ConnectionOptions::queueLimits` sets one. Publications of one QoS keep their order; one of
    /// QoS 0 may overtake others.
    ///
    /// A broker closes the connection when it gets a publication that it does not take, for example
    /// a larger one than it allows. One of QoS 1 or 2 is sent again with the next connection. When
    /// it has ended three connections in a row it is given up, or after four if others were on
    /// their way with it. After two the client sends what is not acknowledged one at a time before
    /// it becomes connected again; if the broker does not answer, for five seconds.
    /// @param payload any bytes
    /// @param qos 0 to 2
    /// @return SUCCESS when sent or queued; otherwise why it was refused: INVALID_PARAMETER
    ///         (QoS, empty or wildcard topic), PAYLOAD_SIZE, 18 (topic not UTF-8), NO_MEMORY (a
    ///         limit of the queue, if there is one)
    Error publish(Topic const& topic, std::string const& payload, int qos, bool retain);

    /// Publishes and waits until the publication is done: written to the network at QoS 0,
    /// acknowledged by the broker at QoS 1 and 2. Without a connection it is queued, without
    /// waiting. When another publication, waited for or not, is acknowledged at the same moment,
    /// the wait may miss its own acknowledgement and end by time-out although the publication is
    /// done. The wait for a publication that is given up ends by time-out, too.
    /// @param timeout seconds; 0 does not wait, `UINT32_MAX` waits without limit
    /// @return as `publish`, or TIMEOUT
    Error publishWait(Topic const& topic, std::string const& payload, int qos, bool retain,
                      conv::SecondsDuration timeout);

    /// Erases the retained message of a topic. Never queued.
    /// @return SUCCESS; NO_CONN without a connection, and then nothing is sent later either; or
    ///         why the topic was refused, as `publish`; NO_MEMORY at a limit of the queue
    Error clear(Topic const& topic);

private:
    struct ZYM_MQTT_LOCAL Implementation;

    friend class MqttDataBase;
    friend class RequestReplyClient;
    /// What these tell of their work.
    ZYM_MQTT_LOCAL EndpointReport& endpointReport();

    // The broker library's callbacks. Exported, for the virtual tables of derived classes.
    void on_connect(int rc) override;
    void on_disconnect(int rc) override;
    void on_publish(int mid) override;
    void on_message(mosquitto_message const* message) override;
    void on_subscribe(int mid, int count, int const* granted) override;
    void on_unsubscribe(int mid) override;
    void on_log(int level, char const* text) override;

    std::recursive_mutex mainMutex_; ///< registry, replay, listeners' calls
    zym::common::Uuid id_;
    bool persistent_;
    std::string host_;
    int port_;
    std::string name_;
    mutable std::recursive_mutex stateMutex_; ///< changes of the state, listeners
    std::condition_variable_any stateChanged_;
    std::atomic<conv::ComState> comState_;
    std::mutex deliveryMutex_; ///< lastPublished_
    std::condition_variable delivered_;
    int lastPublished_ = 0;
    std::mutex unsubscriptionMutex_; ///< lastUnsubscribed_
    std::condition_variable unsubscribed_;
    int lastUnsubscribed_ = 0; ///< each wait notes its own, too
    std::string clientId_;
    std::vector<Listener*> listeners_;
    std::atomic<bool> stop_;
    std::atomic<bool> paused_;
    std::thread worker_;
    std::map<Topic, Subscription> subscriptions_; ///< main lock
    std::deque<Publish> queue_;                   ///< with a lock of its own
    std::unique_ptr<Implementation> impl_;
};

/// Writes the upper-case name of an outcome. ERRNO is followed by the calling thread's errno
/// of this moment: print before anything else can change it.
ZYM_MQTT_EXPORT std::ostream& operator<<(std::ostream& out, MqttClient::Error const& error);
ZYM_MQTT_EXPORT std::ostream& operator<<(std::ostream& out,
                                         MqttClient::ConnectionError const& error);
ZYM_MQTT_EXPORT std::ostream& operator<<(std::ostream& out,
                                         MqttClient::DisconnectionError const& error);

} // namespace mqtt
