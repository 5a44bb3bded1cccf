// The timer looks at the requests and ends those whose time has passed. Ending one waits for the
// broker, and then the listener is told: both without the lock, so that requests can be made
// meanwhile. Who waits for the end of all is let go when the listener has been told of it.

#include "mqtt/topic_cleaner.hpp"

#include "common/user_call.hpp"
#include "common/visitors.hpp"
#include "common/wait.hpp"

#include <algorithm>
#include <utility>

namespace mqtt {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

conv::SecondsDuration const BROKER_TIMEOUT{5};

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

/// A topic that the broker refuses simply has its time.
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
    : listener_(listener),
      // Not every timer catches what its callback throws.
      timer_([this] { callUser([this] { onTimer(); }); }, NO_ACTIVITY_TIME, true),
      callers_(std::make_shared<Visitors>()),
      alive_(std::make_shared<char>()) {
    buildInternalClient(id, host, port);
}

void TopicCleaner::buildInternalClient(zym::common::Uuid const& id, std::string const& host,
                                       int port) {
    client_ = std::make_shared<MqttClient>(id, false, "", host, port, true);
}

TopicCleaner::~TopicCleaner() {
    {
        // A thread in `terminate` may wait for the call to the listener that we are in.
        Lock const lock(tasksMutex_);
        destroyedInside_ = isLooking(lock);
        tasksDone_.notify_all();
    }
    TopicCleaner::terminate();
    callers_->waitForOthers();
    // The connection's thread may still be in here.
    client_->release(this);
    client_.reset();
}

/// All or nothing: what can fail comes before the request is one of ours.
void TopicCleaner::clean(Topic const& topic, milliseconds duration) {
    Visitors::Visit const visit(callers_);
    Lock const lock(tasksMutex_);
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
    // Nobody else would: a topic without retained messages sees no activity.
    if (tasks_.empty()) {
        arm(NO_ACTIVITY_TIME);
    }
    made.front()->start();
    taskCount_ = tag;
    tasks_.splice(tasks_.end(), made);
    cleaning_ = true;
}

/// An empty message is an erased one, most likely by ourselves.
void TopicCleaner::onMqttMessage(int /*tag*/, Topic const& topic, std::string const& payload) {
    if (!payload.empty()) {
        client_->clear(topic);
    }
    arm(milliseconds::zero());
}

void TopicCleaner::arm(milliseconds period) {
    std::unique_lock<std::mutex> lock(timer_.mutex());
    timer_.setPeriod(period, lock);
    timer_.once = true;
    timer_.restart(lock);
}

void TopicCleaner::onTimer() {
    std::weak_ptr<void> const alive = alive_;
    Lock lock(tasksMutex_);
    looker_ = std::this_thread::get_id();
    try {
        handleTasksExpiration(lock);
    } catch (...) {
        // No memory for the name of a topic, whose request is left: the next look ends it.
        callUser([this] { arm(NO_ACTIVITY_TIME); });
    }
    if (alive.expired()) {
        return;
    }
    looker_ = std::thread::id();
    tasksDone_.notify_all();
}

/// Comes back without the lock when the listener has destroyed this object.
void TopicCleaner::handleTasksExpiration(Lock& lock) {
    for (auto due = findDueTask(lock); due != tasks_.end(); due = findDueTask(lock)) {
        auto const topic = (*due)->topic();
        Tasks ended;
        ended.splice(ended.end(), tasks_, due);
        lock.unlock();
        ended.clear();
        if (!tell([&] { listener_->onTopicCleaned(topic); }, lock)) {
            return;
        }
    }
    if (!tasks_.empty()) {
        arm(NO_ACTIVITY_TIME);
        return;
    }
    // Who ends all work lets the waiters go too.
    if (!cleaning_ || terminated_) {
        return;
    }
    lock.unlock();
    if (!tell([&] { listener_->onAllTopicsCleaned(); }, lock)) {
        return;
    }
    // The listener may have asked for the next topic.
    cleaning_ = !tasks_.empty();
}

/// Calls the listener and takes the lock; false, and no lock, when it has destroyed this object.
template <class Call>
bool TopicCleaner::tell(Call const& call, Lock& lock) {
    std::weak_ptr<void> const alive = alive_;
    if (listener_ != nullptr && !terminated_) {
        callUser(call);
    }
    if (alive.expired()) {
        return false;
    }
    lock.lock();
    return true;
}

/// The first in the list whose time has passed; the end when there is none, or nothing may be done
/// any more.
TopicCleaner::Tasks::iterator TopicCleaner::findDueTask(Lock const& /*lock*/) {
    return terminated_ ? tasks_.end()
                       : std::find_if(tasks_.begin(), tasks_.end(),
                                      [](auto const& task) { return task->isDone(); });
}

/// Whether this thread is inside the timer's callback.
bool TopicCleaner::isLooking(Lock const& /*lock*/) const {
    return looker_ == std::this_thread::get_id();
}

bool TopicCleaner::waitAllTasks(milliseconds timeout) const {
    Visitors::Visit const visit(callers_);
    Lock lock(tasksMutex_);
    // These would have to end what they wait for.
    if (isLooking(lock) || client_->onWorkerThread()) {
        timeout = milliseconds::zero();
    }
    return waitUntil(tasksDone_, lock, later(steady_clock::now(), timeout),
                     [this] { return tasks_.empty() && !cleaning_; });
}

void TopicCleaner::terminate() {
    Visitors::Visit const visit(callers_);
    {
        Lock lock(tasksMutex_);
        terminated_ = true;
        tasksDone_.wait(lock, [&] {
            return destroyedInside_ || looker_ == std::thread::id() || isLooking(lock);
        });
        // The destructor does the rest, and waits for us.
        if (destroyedInside_ && !isLooking(lock)) {
            return;
        }
    }
    timer_.terminate();
    Tasks dropped;
    {
        Lock const lock(tasksMutex_);
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
