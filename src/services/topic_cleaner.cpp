// The timer looks at the requests and ends those whose time has passed. Ending one waits for the
// broker, and then the listener is told: both without the lock, so that requests can be made
// meanwhile. Who waits for the end of all is let go when the listener has been told of it.

#include "mqtt/topic_cleaner.hpp"

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
      timer_([this] { onTimer(); }, NO_ACTIVITY_TIME, true),
      callers_(std::make_shared<Visitors>()),
      alive_(std::make_shared<char>()) {
    buildInternalClient(id, host, port);
}

void TopicCleaner::buildInternalClient(zym::common::Uuid const& id, std::string const& host,
                                       int port) {
    client_ = std::make_shared<MqttClient>(id, false, "", host, port, true);
}

TopicCleaner::~TopicCleaner() {
    TopicCleaner::terminate();
    callers_->waitForOthers();
    // The connection's thread may still be in here.
    client_->release(this);
    client_.reset();
}

void TopicCleaner::clean(Topic const& topic, milliseconds duration) {
    Visitors::Visit const visit(callers_);
    Lock const lock(tasksMutex_);
    if (terminated_)
        return;
    auto const running = std::find_if(tasks_.begin(), tasks_.end(),
                                      [&](auto const& task) { return *task == topic; });
    if (running != tasks_.end()) {
        (*running)->extendTimeout(TIMEOUT);
        return;
    }
    auto const task = std::make_shared<Task>(client_, topic, ++taskCount_, duration, this);
    // Nobody else would: a topic without retained messages sees no activity.
    if (tasks_.empty())
        arm(NO_ACTIVITY_TIME);
    tasks_.push_back(task);
    cleaning_ = true;
    task->start();
}

/// An empty message is an erased one, most likely by ourselves.
void TopicCleaner::onMqttMessage(int /*tag*/, Topic const& topic, std::string const& payload) {
    if (!payload.empty())
        client_->clear(topic);
    arm(milliseconds::zero());
}

void TopicCleaner::arm(milliseconds period) {
    std::unique_lock<std::mutex> lock(timer_.mutex());
    timer_.setPeriod(period, lock);
    timer_.once = true;
    timer_.restart(lock);
}

void TopicCleaner::onTimer() {
    handleTasksExpiration();
}

void TopicCleaner::handleTasksExpiration() {
    std::weak_ptr<void> const alive = alive_;
    Lock lock(tasksMutex_);
    while (auto task = takeDueTask(lock)) {
        auto const topic = task->topic();
        lock.unlock();
        task.reset();
        if (listener_ != nullptr && !terminated_)
            listener_->onTopicCleaned(topic);
        if (alive.expired())
            return;
        lock.lock();
    }
    if (!tasks_.empty()) {
        arm(NO_ACTIVITY_TIME);
        return;
    }
    // Who ends all work lets the waiters go too.
    if (!cleaning_ || terminated_)
        return;
    lock.unlock();
    if (listener_ != nullptr)
        listener_->onAllTopicsCleaned();
    if (alive.expired())
        return;
    lock.lock();
    // The listener may have asked for the next topic.
    cleaning_ = !tasks_.empty();
    tasksDone_.notify_all();
}

/// The first in the list whose time has passed, taken from it; null when there is none, or
/// nothing may be done any more.
std::shared_ptr<TopicCleaner::Task> TopicCleaner::takeDueTask(Lock const& /*lock*/) {
    auto const due =
        std::find_if(tasks_.begin(), tasks_.end(), [](auto const& task) { return task->isDone(); });
    if (terminated_ || due == tasks_.end())
        return nullptr;
    auto task = *due;
    tasks_.erase(due);
    return task;
}

bool TopicCleaner::waitAllTasks(milliseconds timeout) const {
    Visitors::Visit const visit(callers_);
    Lock lock(tasksMutex_);
    return waitUntil(tasksDone_, lock, later(steady_clock::now(), timeout),
                     [this] { return tasks_.empty() && !cleaning_; });
}

void TopicCleaner::terminate() {
    {
        Lock const lock(tasksMutex_);
        terminated_ = true;
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
    client_->disconnect(BROKER_TIMEOUT);
}

} // namespace mqtt
