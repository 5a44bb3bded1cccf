// Messages that a run has left in flight must not count in the next run: an identification counts
// only while its entity is awaited, a list of links only while the run awaits one.
//
// `mutex_` is held while the client is called, so the client must not wait for its worker there:
// the callbacks on the worker need `mutex_`.

#include "mqtt/service_discoverer.hpp"

#include "common/active_calls.hpp"
#include "common/wait.hpp"

#include <zym/common/uuid.hpp>

#include <algorithm>

namespace mqtt {

namespace {

using std::chrono::steady_clock;

/// A run under way looks at its state at least this often.
constexpr std::chrono::seconds LONGEST_SLEEP{3};

bool haveSameIds(std::vector<Link> const& left, std::vector<Link> const& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](Link const& a, Link const& b) { return a.id == b.id; });
}

conv::Identification placeholder() {
    conv::Identification unknown;
    unknown.uuid = zym::common::Uuid::UNKNOWN.to_string();
    return unknown;
}

} // namespace

ServiceDiscovererMqtt::ServiceDiscovererMqtt(MqttClient& client, Topic const& topic)
    : client_(client), linksData_(client, topic), calls_(std::make_shared<ActiveCalls>()) {}

ServiceDiscovererMqtt::~ServiceDiscovererMqtt() {
    {
        MutexLock const lock(mutex_);
        destroyed_ = true;
        // Nothing unsubscribes here, as that needs memory: the endpoints are released below.
        awaitsLinks_ = false;
        awaited_.clear();
        changed_.notify_all();
    }
    calls_->waitForOthers();
    linksData_.release();
    // The worker adds no endpoints any more.
    for (auto const& endpoint : identificationEndpoints_) {
        endpoint->release();
    }
}

bool ServiceDiscovererMqtt::discoverSync(conv::SecondsDuration timeout, bool withIdentification) {
    return launchSync(timeout, withIdentification, false);
}

bool ServiceDiscovererMqtt::waitChange(conv::SecondsDuration timeout, bool withIdentification) {
    return launchSync(timeout, withIdentification, true);
}

bool ServiceDiscovererMqtt::launchSync(conv::SecondsDuration timeout, bool withIdentification,
                                       bool waitForChange) {
    // The worker would have to read the messages that it waits for.
    if (client_.onWorkerThread()) {
        return false;
    }
    ActiveCalls::Call const call(calls_);
    std::lock_guard const run(runMutex_);
    MutexLock lock(mutex_);
    if (destroyed_) {
        return false;
    }
    withIdentification_ = withIdentification;
    waitForChange_ = waitForChange;
    done_ = false;
    failed_ = false;
    awaitsLinks_ = true;
    linksData_.subscribe(this, 0);
    waitUntil(
        changed_, lock, timeout.toTimepoint(steady_clock::now()),
        [this]() ZYM_MQTT_REQUIRES(mutex_) { return done_ || failed_ || destroyed_; },
        LONGEST_SLEEP);
    if (!done_) {
        stopListening();
    }
    return done_;
}

std::vector<Link> ServiceDiscovererMqtt::links() const {
    MutexLock const lock(mutex_);
    return links_;
}

std::vector<conv::Identification> ServiceDiscovererMqtt::entities() const {
    MutexLock const lock(mutex_);
    return identifications_;
}

void ServiceDiscovererMqtt::cleanSubscriptions() {
    MutexLock const lock(mutex_);
    stopListening();
}

void ServiceDiscovererMqtt::stopListening() {
    awaitsLinks_ = false;
    awaited_.clear();
    linksData_.unsubscribe();
    for (auto const& endpoint : identificationEndpoints_) {
        endpoint->unsubscribe();
    }
}

void ServiceDiscovererMqtt::onMqttData(std::vector<Link> const& links, bool empty, int /*id*/) {
    if (empty) {
        return;
    }
    MutexLock const lock(mutex_);
    if (!awaitsLinks_ || (waitForChange_ && haveSameIds(links, links_))) {
        return;
    }
    try {
        handleLinks(links);
    } catch (...) {
        // No memory: no message would end the run.
        failed_ = true;
        changed_.notify_all();
    }
}

void ServiceDiscovererMqtt::handleLinks(std::vector<Link> const& links) {
    awaitsLinks_ = false;
    links_ = links;
    linksData_.unsubscribe();
    pending_ = static_cast<std::int32_t>(links.size());
    awaited_.clear();
    identificationEndpoints_.clear();
    identifications_.clear();
    if (isDone()) {
        return;
    }
    identifications_.assign(links.size(), placeholder());
    if (withIdentification_) {
        subscribeToIdentifications();
        return;
    }
    pending_ = 0;
    isDone();
}

void ServiceDiscovererMqtt::subscribeToIdentifications() {
    for (auto const& link : links_) {
        auto const position = static_cast<int>(identificationEndpoints_.size());
        auto const endpoint = std::make_shared<Endpoint>(client_, Topic(link.id));
        identificationEndpoints_.push_back(endpoint);
        awaited_.push_back(true);
        endpoint->subscribe(this, position);
    }
}

void ServiceDiscovererMqtt::onMqttData(conv::Identification const& identification, bool empty,
                                       int id) {
    if (empty) {
        return;
    }
    Endpoint* endpoint = nullptr;
    {
        MutexLock const lock(mutex_);
        endpoint = awaitedEndpoint(id);
    }
    if (endpoint == nullptr) {
        return;
    }
    // Only this thread replaces endpoints.
    endpoint->unsubscribe();
    MutexLock const lock(mutex_);
    if (awaitedEndpoint(id) == nullptr) {
        return;
    }
    auto const position = static_cast<std::size_t>(id);
    awaited_[position] = false;
    identifications_[position] = identification;
    --pending_;
    isDone();
}

/// Null when the entity's identification does not count any more.
ServiceDiscovererMqtt::Endpoint* ServiceDiscovererMqtt::awaitedEndpoint(int id) const {
    auto const position = static_cast<std::size_t>(id);
    if (id < 0 || position >= awaited_.size() || !awaited_[position]) {
        return nullptr;
    }
    return identificationEndpoints_[position].get();
}

bool ServiceDiscovererMqtt::isDone() {
    if (pending_ != 0) {
        return false;
    }
    done_ = true;
    changed_.notify_all();
    return true;
}

} // namespace mqtt
