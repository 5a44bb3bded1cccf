// What a run has left behind, an answer in flight above all, must not count in the next one: an
// answer counts only while its entity is awaited, a list only while the run awaits one.
//
// `mutex_` is held while the client is called, so the client must never wait for its worker in
// there, where the callbacks want it.

#include "mqtt/service_discoverer.hpp"

#include "common/visitors.hpp"
#include "common/wait.hpp"

#include <zym/common/uuid.hpp>

#include <algorithm>

namespace mqtt {

namespace {

using std::chrono::steady_clock;

/// `done_` is looked at so often at least.
constexpr std::chrono::seconds SLICE{3};

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
    : client_(client), linksData_(client, topic), callers_(std::make_shared<Visitors>()) {}

ServiceDiscovererMqtt::~ServiceDiscovererMqtt() {
    {
        Lock const lock(mutex_);
        ending_ = true;
        // Without memory for topics: the endpoints are released below.
        awaitsLinks_ = false;
        awaited_.clear();
        changed_.notify_all();
    }
    callers_->waitForOthers();
    linksData_.release();
    // Nobody adds to them any more.
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
    // The answers would have to be read by the very thread that waits for them.
    if (client_.onWorkerThread()) {
        return false;
    }
    Visitors::Visit const visit(callers_);
    std::lock_guard const run(runMutex_);
    Lock lock(mutex_);
    if (ending_) {
        return false;
    }
    withIdentification_ = withIdentification;
    waitForChange_ = waitForChange;
    done_ = false;
    failed_ = false;
    awaitsLinks_ = true;
    linksData_.subscribe(this, 0);
    return waitUntilDone(timeout, lock);
}

bool ServiceDiscovererMqtt::waitUntilDone(conv::SecondsDuration const& timeout, Lock& lock) {
    auto const deadline = timeout.toTimepoint(steady_clock::now());
    while (true) {
        auto const now = steady_clock::now();
        auto const sliceEnd = deadline - now > SLICE ? now + SLICE : deadline;
        waitUntil(changed_, lock, sliceEnd, [this] { return done_ || failed_ || ending_; });
        if (done_) {
            return true;
        }
        if (failed_ || ending_ || steady_clock::now() >= deadline) {
            break;
        }
    }
    cleanSubscriptions(lock);
    return done_;
}

std::vector<Link> ServiceDiscovererMqtt::links() const {
    Lock const lock(mutex_);
    return links_;
}

std::vector<conv::Identification> ServiceDiscovererMqtt::entities() const {
    Lock const lock(mutex_);
    return identifications_;
}

void ServiceDiscovererMqtt::cleanSubscriptions() {
    cleanSubscriptions(Lock(mutex_));
}

void ServiceDiscovererMqtt::cleanSubscriptions(Lock const& /*lock*/) {
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
    Lock const lock(mutex_);
    if (!accepts(links, lock)) {
        return;
    }
    try {
        takeOver(links, lock);
    } catch (...) {
        // No memory: nothing would end the run.
        failed_ = true;
        changed_.notify_all();
    }
}

void ServiceDiscovererMqtt::takeOver(std::vector<Link> const& links, Lock const& lock) {
    awaitsLinks_ = false;
    links_ = links;
    linksData_.unsubscribe();
    expect(links.size(), lock);
    if (isDone(lock)) {
        return;
    }
    identifications_.assign(links.size(), placeholder());
    if (withIdentification_) {
        askEntities(lock);
        return;
    }
    pending_ = 0;
    isDone(lock);
}

bool ServiceDiscovererMqtt::accepts(std::vector<Link> const& links, Lock const& /*lock*/) const {
    return awaitsLinks_ && !(waitForChange_ && haveSameIds(links, links_));
}

void ServiceDiscovererMqtt::expect(std::size_t entities, Lock const& /*lock*/) {
    pending_ = static_cast<std::int32_t>(entities);
    awaited_.clear();
    identificationEndpoints_.clear();
    identifications_.clear();
}

void ServiceDiscovererMqtt::askEntities(Lock const& /*lock*/) {
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
        Lock const lock(mutex_);
        endpoint = awaited(id, lock);
    }
    if (endpoint == nullptr) {
        return;
    }
    // Endpoints are replaced by this thread only.
    endpoint->unsubscribe();
    Lock const lock(mutex_);
    if (awaited(id, lock) == nullptr) {
        return;
    }
    auto const position = static_cast<std::size_t>(id);
    awaited_[position] = false;
    identifications_[position] = identification;
    --pending_;
    isDone(lock);
}

/// The endpoint whose answer still counts; null for any other.
ServiceDiscovererMqtt::Endpoint* ServiceDiscovererMqtt::awaited(int id,
                                                                Lock const& /*lock*/) const {
    auto const position = static_cast<std::size_t>(id);
    if (id < 0 || position >= awaited_.size() || !awaited_[position]) {
        return nullptr;
    }
    return identificationEndpoints_[position].get();
}

bool ServiceDiscovererMqtt::isDone(Lock const& /*lock*/) {
    if (pending_ != 0) {
        return false;
    }
    done_ = true;
    changed_.notify_all();
    return true;
}

} // namespace mqtt
