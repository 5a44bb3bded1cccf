#pragma once

#include "mqtt/client.hpp"
#include "mqtt/export.hpp"
#include "mqtt/topic.hpp"

#include <zym/common/timer.hpp>
#include <zym/common/uuid.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace mqtt {

class Visitors;

/// Erases the retained messages on topics and below patterns, over a connection of its own.
///
/// Each request listens to its topic for the time it was given: every retained message that the
/// broker delivers, and every other message that comes by, is answered with an empty retained one
/// on the same topic. How much time a broker needs for its retained messages nobody can know: be
/// generous.
///
/// ### Threads
/// Every operation may be called from any thread. The listener is called on the timer's thread
/// with no lock held: it may call every operation, and even destroy the cleaner; what it throws is
/// dropped. On another thread `terminate` and the destructor wait for such a call: do not hold a
/// lock that the listener takes.
class ZYM_MQTT_EXPORT TopicCleaner : public MqttClient::Subscriber {
public:
    /// Told what has been done. Not owned.
    class Listener {
    public:
        /// The time of a request has passed.
        virtual void onTopicCleaned(Topic const& topic) = 0;
        /// No request is left; told once each time that the last one has ended.
        virtual void onAllTopicsCleaned() = 0;

    protected:
        ~Listener() = default;
    };

    /// One request.
    class Task;

    /// How often the requests' times are looked at while nothing arrives.
    static std::chrono::milliseconds const NO_ACTIVITY_TIME; // 1 s
    /// What a request is given on top when the same topic is asked for again.
    static std::chrono::milliseconds const TIMEOUT; // 3 s

    /// Connects to the broker, which blocks as `MqttClient::connect` with 5 seconds does; when
    /// there is none, the cleaner goes on trying.
    /// @param listener may be null; must live until `terminate` has returned
    /// @param id of the connection: no other client of the broker may have it
    /// @param port 0 to 65535
    TopicCleaner(Listener* listener, zym::common::Uuid const& id, std::string const& host,
                 int port);
    /// Terminates.
    ~TopicCleaner() override;
    TopicCleaner(TopicCleaner const&) = delete;
    TopicCleaner& operator=(TopicCleaner const&) = delete;

    /// Cleans a topic or pattern. When it is being cleaned already, by exactly this text, that
    /// request gets `TIMEOUT` longer instead, whatever the duration says. Nothing is done after
    /// `terminate`.
    /// @param duration how long to listen; requests end when the cleaner looks, after activity or
    ///        each `NO_ACTIVITY_TIME`
    /// @throws std::system_error no thread to be had for the timer; std::bad_alloc; nothing is
    ///         cleaned then
    void clean(Topic const& topic, std::chrono::milliseconds duration);

    /// Waits until no request is left and the listener has been told so. Does not wait inside the
    /// listener.
    /// @return true at once when there is none, also once terminated; false when the time was not
    ///         enough
    bool waitAllTasks(std::chrono::milliseconds timeout) const;

    /// Ends all work for good: requests are dropped without telling the listener, those who wait
    /// are let go, the connection is closed, or the search for the broker ended. May take up to 5
    /// seconds for each request and for the connection, when the broker does not answer or several
    /// threads call this at once.
    void terminate();

    /// Called by the connection; not for applications.
    void onMqttMessage(int tag, Topic const& topic, std::string const& payload) override;

private:
    using Tasks = std::list<std::shared_ptr<Task>>;
    using Lock = std::unique_lock<std::mutex>;

    ZYM_MQTT_LOCAL void buildInternalClient(zym::common::Uuid const& id, std::string const& host,
                                            int port);
    ZYM_MQTT_LOCAL void arm(std::chrono::milliseconds period);
    ZYM_MQTT_LOCAL void onTimer();
    ZYM_MQTT_LOCAL void handleTasksExpiration(Lock& lock);
    template <class Call>
    ZYM_MQTT_LOCAL bool tell(Call const& call, Lock& lock);
    ZYM_MQTT_LOCAL Tasks::iterator findDueTask(Lock const& lock);
    ZYM_MQTT_LOCAL bool isLooking(Lock const& lock) const;

    std::shared_ptr<MqttClient> client_;
    std::int32_t taskCount_ = 0;
    mutable std::mutex tasksMutex_; ///< taken before the timer's lock and the client's
    Tasks tasks_;
    mutable std::condition_variable tasksDone_;
    Listener* const listener_;
    bool cleaning_ = false; ///< from a request's creation until the listener has been told of all
    zym::common::Timer timer_;
    std::atomic<bool> terminated_{false};
    std::shared_ptr<Visitors> const callers_; ///< inside an operation that waits, or `clean`
    std::shared_ptr<void> const alive_;       ///< expires with this object
    std::thread::id looker_;                  ///< inside the timer's callback; tasks lock
    bool destroyedInside_ = false;            ///< being destroyed in there; tasks lock
};

/// One request of a cleaner, which makes it, starts it, and destroys it when its time has passed.
/// Not safe for use from two threads at once.
class ZYM_MQTT_EXPORT TopicCleaner::Task {
public:
    /// @param tag handed to the client with the subscription
    /// @param duration from now
    /// @param subscriber gets the messages
    Task(std::shared_ptr<MqttClient> client, Topic const& topic, int tag,
         std::chrono::milliseconds duration, MqttClient::Subscriber* subscriber);
    /// Terminates.
    virtual ~Task();
    Task(Task const&) = delete;
    Task& operator=(Task const&) = delete;

    /// Subscribes.
    void start();
    /// Unsubscribes; waits up to 5 seconds.
    void terminate();
    void extendTimeout(std::chrono::milliseconds extra);
    /// Whether the time has passed.
    bool isDone() const;
    static bool isDone(Task const& task) { return task.isDone(); }
    /// Whether it is for this topic, by its text.
    bool operator==(Topic const& topic) const { return topic_.text() == topic.text(); }

    Topic const& topic() const { return topic_; }

private:
    std::shared_ptr<MqttClient> client_;
    Topic topic_;
    std::int32_t tag_;
    std::chrono::steady_clock::time_point deadline_;
    MqttClient::Subscriber* subscriber_;
};

} // namespace mqtt
