// The timer's callback looks at the requests and ends those whose time has passed. Ending one waits
// for the broker and then calls the listener, both without the lock: requests can be made
// meanwhile. `waitAllTasks` returns after the listener has been called for the end of all.

#include "mqtt/topic_cleaner.hpp"

#include "common/active_calls.hpp"
#include "common/application_call.hpp"
#include "common/arm_timer.hpp"
#include "common/user_call.hpp"
#include "common/wait.hpp"

#include <algorithm>
#include <utility>

namespace mqtt {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

conv::SecondsDuration const BROKER_TIMEOUT{5};
constexpr char LISTENER[] = "Listener of a topic cleaner"; ///< in the log

} // namespace

milliseconds const TopicCleaner::NO_ACTIVITY_TIME{1000};
milliseconds const TopicCleaner::TIMEOUT{3000};

TopicCleaner::Task::Task(std::shared_ptr<MqttClient> client, Topic const& topic, int tag,
                         milliseconds duration, MqttClient::Subscriber* subscriber)
    : client_(std::move(client)),
      topic_(topic),
      tag_(tag),
      deadline_(later(steady_clock::now(), duration)),
      subscriber_(subscriber) {}

TopicCleaner::Task::~Task() {
    Task::terminate();
}

/// A request for a topic that the broker refuses also runs until its deadline.
void TopicCleaner::Task::start() {
    static_cast<void>(client_->subscribe(topic_, subscriber_, tag_));
}

void TopicCleaner::Task::terminate() {
    client_->unsubscribeWait(topic_, subscriber_, BROKER_TIMEOUT);
}

void TopicCleaner::Task::extendTimeout(milliseconds extra) {
    deadline_ = later(deadline_, extra);
}

bool TopicCleaner::Task::isDone() const {
    return steady_clock::now() >= deadline_;
}

TopicCleaner::TopicCleaner(Listener* listener, zym::common::Uuid const& id, std::string const& host,
                           int port)
    : TopicCleaner(listener, id, host, port, ConnectionOptions()) {}

TopicCleaner::TopicCleaner(Listener* listener, zym::common::Uuid const& id, std::string const& host,
                           int port, ConnectionOptions const& options)
    : listener_(listener),
      timer_([this] { onTimer(); }, NO_ACTIVITY_TIME, true),
      calls_(std::make_shared<ActiveCalls>()),
      timerCalls_(std::make_shared<ActiveCalls>()) {
    client_ = std::make_shared<MqttClient>(id, false, "", host, port, true, options);
}

TopicCleaner::~TopicCleaner() {
    terminated_ = true;
    // Also ends the wait of a thread in `terminate` for the listener's call that we may be in.
    timerCalls_->close();
    shutDown();
    calls_->waitForOthers();
    // The worker of the connection may still be in `onMqttMessage`.
    client_->release(this);
    client_.reset();
}

/// What can throw comes before the request is in the list: nothing is cleaned then.
void TopicCleaner::clean(Topic const& topic, milliseconds duration) {
    ActiveCalls::Call const call(calls_);
    MutexLock const lock(tasksMutex_);
    if (terminated_) {
        return;
    }
    auto const running = std::find_if(tasks_.begin(), tasks_.end(),
                                      [&](auto const& task) { return *task == topic; });
    if (running != tasks_.end()) {
        (*running)->extendTimeout(TIMEOUT);
        return;
    }
    auto const tag = taskCount_ + 1;
    Tasks made{std::make_shared<Task>(client_, topic, tag, duration, this)};
    // A topic without retained messages gets none that would arm the timer.
    if (tasks_.empty()) {
        armTimer(timer_, NO_ACTIVITY_TIME, true);
    }
    made.front()->start();
    taskCount_ = tag;
    tasks_.splice(tasks_.end(), made);
    cleaning_ = true;
}

/// An empty message says that a retained one was erased, most likely by this cleaner.
void TopicCleaner::onMqttMessage(int /*tag*/, Topic const& topic, std::string const& payload) {
    if (!payload.empty()) {
        client_->clear(topic);
    }
    armTimer(timer_, milliseconds::zero(), true);
}

/// Lets nothing through: not every timer catches what its callback throws.
void TopicCleaner::onTimer() {
    try {
        handleTasksExpiration();
    } catch (...) {
        // No memory for a topic, whose request is still in the list: the next expiry ends it.
        callUser([this] { armTimer(timer_, NO_ACTIVITY_TIME, true); });
    }
}

void TopicCleaner::handleTasksExpiration() {
    ActiveCalls::Call const call(timerCalls_);
    MutexLock lock(tasksMutex_);
    for (auto due = findDueTask(); due != tasks_.end(); due = findDueTask()) {
        auto const topic = (*due)->topic();
        Tasks ended;
        ended.splice(ended.end(), tasks_, due);
        lock.unlock();
        ended.clear();
        if (listener_ != nullptr && !terminated_) {
            callApplication([&] { listener_->onTopicCleaned(topic); }, LISTENER, ", ",
                            topic.text());
        }
        if (!call.isObjectAlive()) {
            return;
        }
        lock.lock();
    }
    if (!tasks_.empty()) {
        armTimer(timer_, NO_ACTIVITY_TIME, true);
        return;
    }
    // `terminate` ends the waits itself.
    if (!cleaning_ || terminated_) {
        return;
    }
    lock.unlock();
    if (listener_ != nullptr && !terminated_) {
        callApplication([&] { listener_->onAllTopicsCleaned(); }, LISTENER);
    }
    if (!call.isObjectAlive()) {
        return;
    }
    lock.lock();
    // The listener may have made the next request.
    cleaning_ = !tasks_.empty();
    tasksDone_.notify_all();
}

/// The first in the list whose time has passed; the end when there is none, or after `terminate`.
TopicCleaner::Tasks::iterator TopicCleaner::findDueTask() {
    return terminated_ ? tasks_.end()
                       : std::find_if(tasks_.begin(), tasks_.end(),
                                      [](auto const& task) { return task->isDone(); });
}

bool TopicCleaner::waitAllTasks(milliseconds timeout) const {
    ActiveCalls::Call const call(calls_);
    // These threads would have to end what they wait for.
    if (timerCalls_->isThisThreadInside() || client_->onWorkerThread()) {
        timeout = milliseconds::zero();
    }
    MutexLock lock(tasksMutex_);
    return waitUntil(tasksDone_, lock, later(steady_clock::now(), timeout),
                     [this]()
                         ZYM_MQTT_REQUIRES(tasksMutex_) { return tasks_.empty() && !cleaning_; });
}

void TopicCleaner::terminate() {
    ActiveCalls::Call const call(calls_);
    terminated_ = true;
    // A listener that destroys this object leaves the rest to the destructor, which waits for us.
    if (timerCalls_->waitForOthers()) {
        shutDown();
    }
}

void TopicCleaner::shutDown() {
    timer_.terminate();
    Tasks dropped;
    {
        MutexLock const lock(tasksMutex_);
        dropped.swap(tasks_);
        cleaning_ = false;
        tasksDone_.notify_all();
    }
    dropped.clear();
    if (client_->disconnect(BROKER_TIMEOUT) != MqttClient::Error::SUCCESS) {
        client_->giveUp();
    }
    // A client that stays disconnected keeps a processor busy.
    client_->pause();
}

} // namespace mqtt
