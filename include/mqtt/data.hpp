#pragma once

#include "mqtt/client.hpp"
#include "mqtt/export.hpp"
#include "mqtt/subscription.hpp"
#include "mqtt/topic.hpp"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

namespace mqtt {

/// The untyped base of a typed data endpoint: a topic, the client that carries it, and how values
/// are published on that topic.
///
/// ### Threads
/// Every operation may be called from any thread. The endpoint's recursive mutex guards its
/// value and its topics; it is never held while the client is called. The operations that take
/// a lock release it before they call the client; one that does not own the mutex makes them
/// raise `std::system_error` (operation not permitted), and the client is not called.
///
/// ### Lifetime
/// The client must outlive the endpoint. An endpoint may be destroyed at any time, also while a
/// message is being delivered to it and from inside its own listener.
class ZYM_MQTT_EXPORT MqttDataBase : private MqttClient::Subscriber {
public:
    using Lock = std::unique_lock<std::recursive_mutex>;

    /// @param topic where values are published and, unless a derived class says otherwise,
    ///        where `subscribe` listens
    /// @param qos of every publication, 0 to 2
    /// @param retained of every publication
    /// @param subscribeTopic subscribed at once, with identifier 0, if it has a segment. Messages
    ///        may then arrive before a derived class is constructed: give one only while the client
    ///        is not connected yet.
    MqttDataBase(MqttClient& client, Topic const& topic, int qos, bool retained,
                 Topic const& subscribeTopic);
    /// Subscribes to nothing.
    MqttDataBase(MqttClient& client, Topic const& topic, int qos, bool retained);
    /// Publishes at QoS 0, not retained, and subscribes to nothing.
    MqttDataBase(MqttClient& client, Topic const& topic);
    /// Subscribes at once, with identifier 0, to the topic that the other endpoint has subscribed
    /// to.
    MqttDataBase(MqttDataBase const& other);
    MqttDataBase& operator=(MqttDataBase const&) = delete;

    /// Replaces the topic. Takes no lock and does not move a subscription: hold the mutex, and
    /// subscribe again afterwards.
    void setTopicBase(Topic const& topic);

    /// Hold the mutex while you use the reference.
    Topic const& topicBase() const { return topicBase_; }

    std::recursive_mutex& mutex() const { return mutex_; }

    /// @param id passed to the subscriber with every message
    /// @return as `MqttClient::subscribe`
    MqttClient::Error subscribe(int id, Lock& lock);
    /// @return as `MqttClient::unsubscribe`
    MqttClient::Error unsubscribe(Lock& lock);
    /// Waits up to 5 seconds, but not on the client's worker thread.
    /// @return as `MqttClient::unsubscribeWait`
    MqttClient::Error unsubscribeWait(Lock& lock);

    /// Publishes the current value as `MqttClient::publish` does. The result is not reported.
    void publish(Lock& lock);
    void publish();
    /// Publishes the current value and waits up to 5 seconds until it is delivered, but not on the
    /// client's worker thread. The result is not reported.
    void publishWait(Lock& lock);
    void publishWait();

    /// Publishes the current value and reports the result.
    /// @param wait whether to wait, up to 5 seconds, until it is delivered
    /// @return as `MqttClient::publish` or `MqttClient::publishWait`
    MqttClient::Error send(bool wait, Lock& lock);

    /// Publishes an empty payload with the endpoint's own QoS and retained flag: the broker
    /// forgets a retained value.
    /// @param wait whether to wait, up to 5 seconds, until it is delivered
    /// @return as `MqttClient::publish` or `MqttClient::publishWait`
    MqttClient::Error clean(bool wait, Lock& lock);
    MqttClient::Error clean();
    MqttClient::Error cleanWait();

    /// Makes the current value the client's will: the broker publishes it when the connection is
    /// lost.
    /// @return as `MqttClient::setWill`
    MqttClient::Error setCurrentValueAsWill();

    /// Ends every subscription and waits for a delivery under way on another thread: afterwards
    /// nothing is delivered. For destructors of derived and owning classes, while everything that a
    /// delivery uses still exists. Do not hold a lock that the subscriber takes.
    void release() noexcept;

protected:
    /// Ends every subscription. A derived class must have called `release` in its own destructor,
    /// before any of its members is destroyed.
    ~MqttDataBase() override;

    /// Where values are published.
    virtual void getPublishTopic(Topic& topic);
    /// Where `subscribe` listens.
    virtual void getSubscribeTopic(Topic& topic);
    /// Reads a received payload into the value.
    /// @throws std::exception the message is dropped, logged with the exception's text, and counted
    virtual void deserialize(Topic const& topic, std::string const& payload, bool empty) = 0;
    /// Writes the current value into the payload.
    virtual void serialize(Topic const& topic, std::string& payload) const = 0;
    /// Releases the lock, then calls the subscriber, which may destroy the endpoint.
    virtual void notify(bool empty, int id, Lock& lock) = 0;

    /// Copies without subscribing. A derived class then calls `subscribeLike` at the end of its own
    /// constructor.
    struct Unsubscribed {};
    MqttDataBase(MqttDataBase const& other, Unsubscribed);
    void subscribeLike(MqttDataBase const& other);

    MqttClient& client() const { return client_; }

    /// What a thread waits for: that another one reports the end, with or without an exception.
    class ZYM_MQTT_EXPORT Arrival {
    public:
        void report(std::exception_ptr error) noexcept;
        bool isReported() const;
        /// Waits until the report or the end of the time.
        void wait(std::chrono::seconds timeout);
        /// @throws what was reported
        void rethrow() const;

    private:
        mutable std::mutex mutex_;
        std::condition_variable reported_;
        bool isReported_ = false;
        std::exception_ptr error_;
    };

private:
    struct Message {
        Topic topic;
        std::string payload;
    };

    MqttDataBase(MqttDataBase const& other, Lock const& lockOfOther);

    ZYM_MQTT_LOCAL void subscribeAtOnce();
    /// The current value, ready to be published. Releases the lock.
    ZYM_MQTT_LOCAL Message currentMessage(Lock& lock);
    ZYM_MQTT_LOCAL MqttClient::Error handOver(Message const& message, bool wait);
    void onMqttMessage(int id, Topic const& topic, std::string const& payload) final;

    Topic topicBase_;
    mutable std::recursive_mutex mutex_;
    MqttClient& client_;
    int qos_;
    bool retained_;
    Topic subscribeTopic_;
};

/// A typed data endpoint: one value of type `T`, published as a JSON document on the endpoint's
/// topic, and received from there.
///
/// The value types of this library are in `mqtt/payloads.hpp` and `mqtt/link.hpp`. For a struct of
/// your own, name its fields: see `mqtt/fields.hpp`. For a payload that is no such document,
/// specialise the constructor, `serialize` and `deserialize`; everything else is generic.
///
/// ### Threads
/// `mutex()` guards `value` and `subscriber`. The subscriber gets a copy of a received value and is
/// called with no lock held: it may call every operation of the endpoint that does not wait.
template <class T>
class ZYM_MQTT_EXPORT MqttData : public MqttDataBase {
public:
    /// Is called for every value received.
    class Subscriber {
    public:
        /// Called on the client's worker thread.
        /// @param value a copy of the endpoint's value, which an empty payload does not change
        /// @param empty whether the payload was empty: a retained value was cleared
        /// @param id the one given to `subscribe`
        virtual void onMqttData(T const& value, bool empty, int id) = 0;

    protected:
        ~Subscriber() = default;
    };

    /// The topic level that the constructor appends, where the value type has one.
    static char const* const TOPIC_SUFFIX;

    /// Chooses topic, quality of service and retained flag. Subscribes to nothing.
    MqttData(MqttClient& client, Topic const& topic);
    /// Copies value and subscriber, and subscribes at once, with identifier 0, to the topic that
    /// the other endpoint has subscribed to. The elements of a growing `std::vector` are copied and
    /// so subscribe again: use another container.
    MqttData(MqttData const& other);
    /// Unsubscribes. On any thread but the client's worker it waits until no delivery is under way:
    /// do not hold a lock that the subscriber takes.
    ~MqttData() override;

    /// Writes a value into the payload and replaces its previous content.
    static void serialize(Topic const& topic, std::string& payload, T const& value);
    /// Reads a payload into the value; does nothing for an empty one.
    /// @throws std::exception the message is dropped, logged with the exception's text, and counted
    static void deserialize(Topic const& topic, std::string const& payload, bool empty, T& value);

    using MqttDataBase::subscribe;
    /// Sets the subscriber and subscribes.
    /// @return as `MqttClient::subscribe`
    MqttClient::Error subscribe(Subscriber* receiver, int id);
    using MqttDataBase::unsubscribe;
    /// Removes the subscriber and unsubscribes. Does not wait: the subscriber may still be called
    /// once for a delivery under way.
    /// @return as `MqttClient::unsubscribe`
    MqttClient::Error unsubscribe();

    using MqttDataBase::publish;
    /// Sets the value and publishes it. If it cannot be written, it is set and not published, and
    /// what writing it has thrown is passed on.
    /// @return as `MqttClient::publish`
    MqttClient::Error publish(T newValue);
    using MqttDataBase::publishWait;
    /// The same, and waits up to 5 seconds until the value is delivered.
    /// @return as `MqttClient::publishWait`
    MqttClient::Error publishWait(T newValue);

    /// A copy of the value: what was set last, or what this endpoint has received.
    T get() const;

    /// Calls a function for each value that arrives on the topic of this endpoint, also for the
    /// retained one. This endpoint, its value and its subscriber are not involved: any number of
    /// functions may be subscribed, and the endpoint may be destroyed before them. Payloads are
    /// read by the static `deserialize`, also if a derived class overrides the virtual one. As with
    /// every subscription, the broker sends a retained value once more to all who have subscribed
    /// to the topic on this client.
    /// @return keep it: its end is the end of the subscription. Its `result()` says whether
    ///         values arrive
    Subscription<T> subscribe(typename Subscription<T>::Function function);

    /// Waits for a value, which may be the retained one: subscribes, and unsubscribes at the end.
    /// Values that arrive between two waits are not seen; a subscribed function sees all. An empty
    /// payload does not end the wait. This endpoint and its value are not involved; it may be
    /// destroyed meanwhile. Any number of threads may wait.
    /// @param received gets the value; stays as it is without one
    /// @param isWanted is called on the worker thread for each value, up to the first for which it
    ///        returns true. What it throws ends the wait and is thrown here
    /// @param timeout 0 or less sees only a value that is already arriving;
    ///        `std::chrono::seconds::max()` has no limit
    /// @return SUCCESS; TIMEOUT, at once on the worker thread; or as `MqttClient::subscribe`
    MqttClient::Error waitFor(T& received, std::function<bool(T const& value)> const& isWanted,
                              std::chrono::seconds timeout);
    /// The same for the first value that arrives.
    MqttClient::Error waitForNext(T& received, std::chrono::seconds timeout);

    Subscriber* subscriber = nullptr; ///< not owned
    T value{};

protected:
    /// Copies without subscribing, for a derived class that has more to copy. It then calls
    /// `subscribeLike`.
    MqttData(MqttData const& other, Unsubscribed);

    void getPublishTopic(Topic& topic) override;
    void getSubscribeTopic(Topic& topic) override;
    void deserialize(Topic const& topic, std::string const& payload, bool empty) override;
    void serialize(Topic const& topic, std::string& payload) const override;
    void notify(bool empty, int id, Lock& lock) override;

private:
    MqttData(MqttData const& other, Lock const& lockOfOther);
};

template <class T>
MqttData<T>::MqttData(MqttData const& other) : MqttData(other, Unsubscribed()) {
    subscribeLike(other);
}

template <class T>
MqttData<T>::MqttData(MqttData const& other, Unsubscribed) : MqttData(other, Lock(other.mutex())) {}

template <class T>
MqttData<T>::MqttData(MqttData const& other, Lock const& /*lockOfOther*/)
    : MqttDataBase(other, Unsubscribed()), subscriber(other.subscriber), value(other.value) {}

template <class T>
MqttData<T>::~MqttData() {
    {
        Lock const lock(mutex());
        subscriber = nullptr;
    }
    release();
}

template <class T>
MqttClient::Error MqttData<T>::subscribe(Subscriber* receiver, int id) {
    Lock lock(mutex());
    subscriber = receiver;
    return MqttDataBase::subscribe(id, lock);
}

template <class T>
MqttClient::Error MqttData<T>::unsubscribe() {
    Lock lock(mutex());
    subscriber = nullptr;
    return MqttDataBase::unsubscribe(lock);
}

template <class T>
MqttClient::Error MqttData<T>::publish(T newValue) {
    Lock lock(mutex());
    value = std::move(newValue);
    return send(false, lock);
}

template <class T>
MqttClient::Error MqttData<T>::publishWait(T newValue) {
    Lock lock(mutex());
    value = std::move(newValue);
    return send(true, lock);
}

template <class T>
T MqttData<T>::get() const {
    Lock const lock(mutex());
    return value;
}

template <class T>
Subscription<T> MqttData<T>::subscribe(typename Subscription<T>::Function function) {
    Lock lock(mutex());
    Topic topic;
    getSubscribeTopic(topic);
    lock.unlock();
    return Subscription<T>(*this, topic, std::move(function));
}

template <class T>
MqttClient::Error MqttData<T>::waitFor(T& received,
                                       std::function<bool(T const& value)> const& isWanted,
                                       std::chrono::seconds timeout) {
    if (client().onWorkerThread()) {
        return MqttClient::Error::TIMEOUT;
    }
    Arrival arrival;
    T found{};
    auto const look = [&](T const& arrived, bool empty) {
        try {
            if (!empty && !arrival.isReported() && isWanted(arrived)) {
                found = arrived;
                arrival.report(nullptr);
            }
        } catch (...) {
            arrival.report(std::current_exception());
        }
    };
    // From here on this endpoint may be destroyed.
    auto subscription = subscribe(std::cref(look));
    if (subscription.result() != MqttClient::Error::SUCCESS) {
        return subscription.result();
    }
    arrival.wait(timeout);
    subscription = {}; // the worker has left `look`
    if (!arrival.isReported()) {
        return MqttClient::Error::TIMEOUT;
    }
    arrival.rethrow();
    received = std::move(found);
    return MqttClient::Error::SUCCESS;
}

template <class T>
MqttClient::Error MqttData<T>::waitForNext(T& received, std::chrono::seconds timeout) {
    return waitFor(
        received, [](T const& /*value*/) { return true; }, timeout);
}

template <class T>
void MqttData<T>::getPublishTopic(Topic& topic) {
    topic = topicBase();
}

template <class T>
void MqttData<T>::getSubscribeTopic(Topic& topic) {
    topic = topicBase();
}

template <class T>
void MqttData<T>::deserialize(Topic const& topic, std::string const& payload, bool empty) {
    deserialize(topic, payload, empty, value);
}

template <class T>
void MqttData<T>::serialize(Topic const& topic, std::string& payload) const {
    serialize(topic, payload, value);
}

template <class T>
void MqttData<T>::notify(bool empty, int id, Lock& lock) {
    T const copy = value;
    auto* const receiver = subscriber;
    lock.unlock();
    // From here on this endpoint may be destroyed, also by the receiver.
    if (receiver != nullptr) {
        receiver->onMqttData(copy, empty, id);
    }
}

} // namespace mqtt
