#pragma once

#include "mqtt/client.hpp"
#include "mqtt/connection_options.hpp"
#include "mqtt/export.hpp"
#include "mqtt/mutex.hpp"
#include "mqtt/topic.hpp"

#include <zym/common/timer.hpp>
#include <zym/common/uuid.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace mqtt {

class ActiveCalls;

/// Erases the retained messages on topics and topic patterns, over a connection of its own.
///
/// Each request listens to its topic for the given duration: every message that the broker delivers
/// meanwhile, retained or not, is answered with an empty retained one on the same topic. The time
/// that a broker needs to deliver its retained messages is not known: choose a long duration.
///
/// ### Threads
/// Every operation may be called from any thread. The listener is called on the timer's thread
/// with no lock held: it may call every operation, and even destroy the cleaner; what it throws is
/// dropped. On another thread `terminate` and the destructor wait for such a call: do not hold a
/// lock that the listener takes.
class ZYM_MQTT_EXPORT TopicCleaner : public MqttClient::Subscriber {
public:
    /// Is called when requests end. Not owned.
    class Listener {
    public:
        /// The time of a request has passed.
        virtual void onTopicCleaned(Topic const& topic) = 0;
        /// No request is left. Called once each time that the last one has ended.
        virtual void onAllTopicsCleaned() = 0;

    protected:
        ~Listener() = default;
    };

    /// One request.
    class Task;

    /// How often the cleaner looks for requests whose time has passed, while no message arrives.
    static std::chrono::milliseconds const NO_ACTIVITY_TIME; // 1 s
    /// By how much a second request for the same topic extends the first.
    static std::chrono::milliseconds const TIMEOUT; // 3 s

    /// Connects to the broker, which blocks as `MqttClient::connect` with 5 seconds does; without a
    /// broker the cleaner tries again until it is terminated.
    /// @param listener may be null; must live until `terminate` has returned
    /// @param id of the connection: no other client of the broker may have it
    /// @param port 0 to 65535
    TopicCleaner(Listener* listener, zym::common::Uuid const& id, std::string const& host,
                 int port);
    /// The same, with credentials or encryption.
    /// @throw std::invalid_argument options that `MqttClient::setOptions` refuses
    TopicCleaner(Listener* listener, zym::common::Uuid const& id, std::string const& host, int port,
                 ConnectionOptions const& options);
    /// Terminates.
    ~TopicCleaner() override;
    TopicCleaner(TopicCleaner const&) = delete;
    TopicCleaner& operator=(TopicCleaner const&) = delete;

    /// Cleans a topic or pattern. If a request with exactly this text is under way, it is extended
    /// by `TIMEOUT` instead, and the duration is not used. Does nothing after `terminate`.
    /// @param duration how long to listen; the request then ends after the next message, or when
    ///        the next `NO_ACTIVITY_TIME` is over
    /// @throws std::system_error no thread for the timer; std::bad_alloc; nothing is cleaned then
    void clean(Topic const& topic, std::chrono::milliseconds duration);

    /// Waits until no request is left and the listener has been called for that. Does not wait
    /// inside the listener.
    /// @return true at once when there is none, also after `terminate`; false after the time-out
    bool waitAllTasks(std::chrono::milliseconds timeout) const;

    /// Ends all work for good: drops the requests without calling the listener, ends the waits, and
    /// closes the connection or ends the attempts to connect. May take up to 5 seconds for each
    /// request and for the connection, when the broker does not answer or several threads call this
    /// at once.
    void terminate();

    /// Called by the connection; not for applications.
    void onMqttMessage(int tag, Topic const& topic, std::string const& payload) override;

private:
    using Tasks = std::list<std::shared_ptr<Task>>;

    ZYM_MQTT_LOCAL void onTimer();
    ZYM_MQTT_LOCAL void handleTasksExpiration();
    ZYM_MQTT_LOCAL Tasks::iterator findDueTask() ZYM_MQTT_REQUIRES(tasksMutex_);
    ZYM_MQTT_LOCAL void shutDown();

    std::shared_ptr<MqttClient> client_;
    std::int32_t taskCount_ ZYM_MQTT_GUARDED_BY(tasksMutex_) = 0;
    mutable Mutex tasksMutex_; ///< taken before the timer's lock and the client's
    Tasks tasks_ ZYM_MQTT_GUARDED_BY(tasksMutex_);
    mutable std::condition_variable tasksDone_;
    Listener* const listener_;
    /// From a request's creation until the listener has been called for the end of all.
    bool cleaning_ ZYM_MQTT_GUARDED_BY(tasksMutex_) = false;
    zym::common::Timer timer_;
    std::atomic<bool> terminated_{false};
    std::shared_ptr<ActiveCalls> const calls_;      ///< `clean`, and operations that wait
    std::shared_ptr<ActiveCalls> const timerCalls_; ///< those of the timer's callback
};

/// One request of a cleaner, which makes it, starts it, and destroys it when its time has passed.
/// Must not be used by two threads at once.
class ZYM_MQTT_EXPORT TopicCleaner::Task {
public:
    /// @param tag passed to the client with the subscription
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
