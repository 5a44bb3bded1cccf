#pragma once

#include "mqtt/client.hpp"

#include <functional>
#include <memory>
#include <utility>

namespace mqtt {

template <class T>
class MqttData;

/// A function that is called for each value of a topic, as long as this object exists.
///
/// `MqttData<T>::subscribe` makes it. It has a registration of its own at the client: a document is
/// read for it into a value of its own, and the endpoint that made it is neither changed nor needed
/// any more. The client must outlive it.
///
/// The function is called on the client's worker thread with no lock held, one value at a time. It
/// may call all operations that do not wait, and may end this subscription. What it throws is
/// dropped; it is called again for the next value.
///
/// ### Threads
/// The object itself is for one thread at a time, like a `std::unique_ptr`.
template <class T>
class [[nodiscard]] Subscription {
public:
    /// @param value what was received last, which an empty payload does not change
    /// @param empty whether the payload was empty: a retained value was cleared
    using Function = std::function<void(T const& value, bool empty)>;

    /// No subscription; its result is NOT_FOUND.
    Subscription() = default;
    /// The other object has no subscription any more.
    Subscription(Subscription&& other) noexcept
        : receiver_(std::move(other.receiver_)),
          result_(std::exchange(other.result_, MqttClient::Error::NOT_FOUND)) {}
    /// The same, and ends the previous subscription, as the destructor.
    Subscription& operator=(Subscription&& other) noexcept {
        receiver_ = std::move(other.receiver_);
        result_ = std::exchange(other.result_, MqttClient::Error::NOT_FOUND);
        return *this;
    }
    /// Unsubscribes, and waits for a call of the function under way, except on the client's worker
    /// thread. Afterwards the function is not called any more. Do not hold a lock that it takes.
    ~Subscription() = default;

    /// Whether values arrive: SUCCESS, or why nothing was subscribed, as `MqttClient::subscribe`;
    /// INVALID_PARAMETER also for an empty function.
    MqttClient::Error result() const { return result_; }

private:
    friend class MqttData<T>;

    /// An endpoint of its own: the client knows how to end one safely.
    class Receiver final : public MqttData<T> {
    public:
        Receiver(MqttData<T> const& endpoint, Topic const& topic, Function function)
            : MqttData<T>(endpoint, typename MqttData<T>::Unsubscribed()),
              function_(std::make_shared<Function const>(std::move(function))) {
            this->setTopicBase(topic);
        }
        ~Receiver() override { this->release(); }
        Receiver(Receiver const&) = delete;
        Receiver& operator=(Receiver const&) = delete;

    protected:
        void getSubscribeTopic(Topic& topic) override { topic = this->topicBase(); }
        void notify(bool empty, int /*id*/, typename MqttData<T>::Lock& lock) override {
            T const copy = this->value;
            // The function may destroy this object while it runs.
            auto const function = function_;
            lock.unlock();
            (*function)(copy, empty);
        }

    private:
        std::shared_ptr<Function const> function_;
    };

    Subscription(MqttData<T> const& endpoint, Topic const& topic, Function function) {
        if (!function) {
            result_ = MqttClient::Error::INVALID_PARAMETER;
            return;
        }
        receiver_ = std::make_unique<Receiver>(endpoint, topic, std::move(function));
        typename MqttData<T>::Lock lock(receiver_->mutex());
        result_ = receiver_->subscribe(0, lock);
    }

    std::unique_ptr<Receiver> receiver_;
    MqttClient::Error result_ = MqttClient::Error::NOT_FOUND;
};

} // namespace mqtt
