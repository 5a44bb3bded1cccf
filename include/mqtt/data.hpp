#pragma once

#include "mqtt/client.hpp"
#include "mqtt/export.hpp"
#include "mqtt/topic.hpp"

#include <mutex>
#include <string>

namespace mqtt {

/// The untyped half of a typed data endpoint: a topic, the client that carries it, and how
/// values are published there.
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
    ///        may then arrive before a derived class is whole: only for a client that is not
    ///        connected yet.
    MqttDataBase(MqttClient& client, Topic const& topic, int qos, bool retained,
                 Topic const& subscribeTopic);
    /// Subscribes to nothing.
    MqttDataBase(MqttClient& client, Topic const& topic, int qos, bool retained);
    /// Publishes at QoS 0, not retained, and subscribes to nothing.
    MqttDataBase(MqttClient& client, Topic const& topic);
    /// Subscribes at once, with identifier 0, where the other one has subscribed.
    MqttDataBase(MqttDataBase const& other);
    MqttDataBase& operator=(MqttDataBase const&) = delete;

    /// Replaces the topic. Takes no lock, and does not move a subscription: hold the mutex, and
    /// subscribe anew.
    void setTopicBase(Topic const& topic);

    /// Hold the mutex while you use it.
    Topic const& topicBase() const { return topicBase_; }

    std::recursive_mutex& mutex() const { return mutex_; }

    /// @param id handed to the listener with every message
    /// @return as `MqttClient::subscribe`
    MqttClient::Error subscribe(int id, Lock& lock);
    /// @return as `MqttClient::unsubscribe`
    MqttClient::Error unsubscribe(Lock& lock);
    /// Waits up to 5 seconds, but not on the client's worker thread.
    /// @return as `MqttClient::unsubscribeWait`
    MqttClient::Error unsubscribeWait(Lock& lock);

    /// Publishes the current value, as `MqttClient::publish` does. What came of it is not told.
    void publish(Lock& lock);
    void publish();
    /// Publishes the current value and waits up to 5 seconds until that is done, but not on the
    /// client's worker thread; what came of it is not told.
    void publishWait(Lock& lock);
    void publishWait();

    /// Publishes the current value and tells what came of it.
    /// @param wait whether to wait, up to 5 seconds, until that is done
    /// @return as `MqttClient::publish` or `MqttClient::publishWait`
    MqttClient::Error send(bool wait, Lock& lock);

    /// Publishes an empty payload with the endpoint's own QoS and retained flag: the broker
    /// forgets a retained value.
    /// @param wait whether to wait, up to 5 seconds, until that is done
    /// @return as `MqttClient::publish` or `MqttClient::publishWait`
    MqttClient::Error clean(bool wait, Lock& lock);
    MqttClient::Error clean();
    MqttClient::Error cleanWait();

    /// Makes the current value what the broker publishes when the client vanishes.
    /// @return as `MqttClient::setWill`
    MqttClient::Error setCurrentValueAsWill();

    /// Ends every subscription and waits for a delivery under way, unless called from inside it:
    /// afterwards nothing is delivered. For destructors of classes around this one, before
    /// anything is gone that a delivery needs. Do not hold a lock that the listener takes.
    void release() noexcept;

protected:
    /// Leaves the client. A derived class must have called `release` in its own destructor,
    /// before any part of it is gone.
    ~MqttDataBase() override;

    /// Where values are published.
    virtual void getPublishTopic(Topic& topic);
    /// Where `subscribe` listens.
    virtual void getSubscribeTopic(Topic& topic);
    /// Takes over a received payload.
    /// @throws std::exception the message is dropped, silently
    virtual void deserialize(Topic const& topic, std::string const& payload, bool empty) = 0;
    /// Renders the current value.
    virtual void serialize(Topic const& topic, std::string& payload) const = 0;
    /// Tells the listener; releases the lock first. The endpoint may be gone when the listener
    /// returns.
    virtual void notify(bool empty, int id, Lock& lock) = 0;

    /// Not subscribed, whatever the other one is: for a derived class that subscribes when it is
    /// whole, with `subscribeLike`.
    struct Unsubscribed {};
    MqttDataBase(MqttDataBase const& other, Unsubscribed);
    void subscribeLike(MqttDataBase const& other);

private:
    MqttDataBase(MqttDataBase const& other, Lock const& lockOfOther);

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
/// The value types of this library stand in `mqtt/payloads.hpp` and `mqtt/link.hpp`. For a type of
/// your own specialise the constructor, `serialize` and `deserialize`; all else is generic:
/// ```
/// template <>
/// MqttData<Reading>::MqttData(MqttClient& client, Topic const& topic)
///     : MqttDataBase(client, topic + "reading", 2, true) {}
/// ```
///
/// ### Threads
/// `value` and `subscriber` are guarded by `mutex()`. A received value is handed out as a copy,
/// with no lock held: the subscriber may call every operation of the endpoint that does not wait.
template <class T>
class ZYM_MQTT_EXPORT MqttData : public MqttDataBase {
public:
    /// Told of every value received.
    class Subscriber {
    public:
        /// Called on the client's worker thread.
        /// @param value a copy of the endpoint's value; unchanged by an empty payload
        /// @param empty whether the payload was empty, so a retained value was cleared
        /// @param id what was given to `subscribe`
        virtual void onMqttData(T const& value, bool empty, int id) = 0;

    protected:
        ~Subscriber() = default;
    };

    /// The topic level that the constructor appends, where the value type has one.
    static char const* const TOPIC_SUFFIX;

    /// Chooses topic, quality of service and retained flag. Subscribes to nothing.
    MqttData(MqttClient& client, Topic const& topic);
    /// Keeps value and subscriber, and subscribes at once, with identifier 0, where the other one
    /// has subscribed. So does each element of a `std::vector` that grows: take another container.
    MqttData(MqttData const& other);
    /// Unsubscribes; on another thread than the client's worker it waits until no delivery is
    /// under way. Do not hold a lock that the subscriber takes.
    ~MqttData() override;

    /// Renders a value as a payload, in place of what stands there.
    static void serialize(Topic const& topic, std::string& payload, T const& value);
    /// Takes over what a payload says; does nothing for an empty one.
    /// @throws std::exception the message is dropped, silently
    static void deserialize(Topic const& topic, std::string const& payload, bool empty, T& value);

    using MqttDataBase::subscribe;
    /// Sets the subscriber and subscribes.
    /// @return as `MqttClient::subscribe`
    MqttClient::Error subscribe(Subscriber* receiver, int id);
    using MqttDataBase::unsubscribe;
    /// Removes the subscriber and unsubscribes. Does not wait: one call may still come.
    /// @return as `MqttClient::unsubscribe`
    MqttClient::Error unsubscribe();

    Subscriber* subscriber = nullptr; ///< the one listener; not owned
    T value{};

protected:
    /// Not subscribed, whatever the other one is: for a derived class with more to copy, which
    /// calls `subscribeLike` when it is whole.
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
    // From here on this endpoint may be destroyed, by the receiver too.
    if (receiver != nullptr) {
        receiver->onMqttData(copy, empty, id);
    }
}

} // namespace mqtt
