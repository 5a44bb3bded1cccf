#include "chaos/discoveries.hpp"

#include "support/raw_peer.hpp"
#include "support/test_client.hpp"
#include "support/timeout_factor.hpp"

namespace chaos {

namespace {

constexpr std::chrono::seconds NEVER{90 * support::TIMEOUT_FACTOR};
constexpr char const* LITTER = "chaos/litter";

std::string entity(int i) {
    return std::string(Device::TOPIC) + "/entity" + std::to_string(i);
}

} // namespace

char const* const Device::TOPIC = "chaos/device";

Device::Device(Place& place) {
    client_ = support::testClient(place.broker.host(), place.newLine().port(), {true, false});
    links_ = std::make_unique<mqtt::MqttDataCollection<mqtt::Link>>(*client_, TOPIC);
    for (int i = 0; i < ENTITIES; ++i) {
        links_->value.push_back({entity(i)});
        entities_.push_back(
            std::make_unique<mqtt::MqttData<conv::Identification>>(*client_, entity(i)));
        entities_.back()->value.name = "entity " + std::to_string(i);
    }
    client_->registerListener(this);
    client_->connect(place.broker.host(), place.lines.back()->port(), 5);
}

Device::~Device() {
    client_->unregisterListener(this);
}

void Device::publish() {
    for (auto const& entity : entities_) {
        entity->publish();
    }
    links_->publish();
}

void Device::onComStateChanged(conv::ComState state) {
    if (state == conv::ComState::CONNECTED) {
        publish();
    }
}

Explorer::Explorer(Place& place, std::string const& name) : Party(name, place.seed), place_(place) {
    client_ = support::testClient(place.broker.host(), place.newLine().port());
    discoverer_ = std::make_unique<mqtt::ServiceDiscovererMqtt>(*client_, Device::TOPIC);
}

Explorer::~Explorer() {
    end();
    discoverer_.reset();
}

void Explorer::step() {
    explore();
    pause(0, 100);
}

bool Explorer::explore() {
    bool const complete = discoverer_->discoverSync(2, true);
    place_.findings.count(complete ? "discoveries made" : "discoveries that ran out of time");
    if (!complete) {
        return false;
    }
    auto const entities = discoverer_->entities();
    bool right = entities.size() == static_cast<std::size_t>(Device::ENTITIES);
    for (std::size_t i = 0; right && i < entities.size(); ++i) {
        right = entities[i].name == "entity " + std::to_string(i);
    }
    if (!right) {
        place_.findings.breach(name() + ": complete, but wrong");
    }
    return right;
}

void Explorer::prove() {
    if (!support::eventually([this] { return explore(); }, NEVER)) {
        place_.findings.breach(name() + " finds nothing any more");
    }
}

Sweeper::Sweeper(Place& place, std::string const& name)
    : Party(name, place.seed), place_(place), port_(place.newLine().port()) {
    client_ = support::testClient(place.broker.host(), place.newLine().port(), {true});
}

Sweeper::~Sweeper() {
    end();
}

void Sweeper::step() {
    litter();
    sweep();
    pause(0, 100);
}

void Sweeper::litter() {
    for (int n = dice().between(1, 20); n > 0; --n) {
        client_->publish(std::string(LITTER) + '/' + std::to_string(n), "litter", 1, true);
    }
}

void Sweeper::sweep() {
    int const cleaned = cleaned_;
    int const all = all_;
    bool done = false;
    {
        mqtt::TopicCleaner cleaner(this, support::uniqueId(), place_.broker.host(), port_);
        cleaner.clean(std::string(LITTER) + "/#", std::chrono::seconds(1));
        // Every now and then it is destroyed at work.
        bool const patient = dice().percent(80);
        done = patient && cleaner.waitAllTasks(NEVER);
        if (patient && !done) {
            place_.findings.breach(name() + ": cleaning never ended");
        }
    }
    place_.findings.count(done ? "cleanings made" : "cleaners destroyed at work");
    // Not while the cleaner lives: it tells of the one thing before the other.
    if (cleaned_ > cleaned + 1 || all_ > all + 1
        || (done && (cleaned_ == cleaned || all_ == all))) {
        place_.findings.breach(name() + ": not told once that all is cleaned");
    }
}

void Sweeper::prove() {
    auto const clean = [this] {
        sweep();
        return support::allRetained(place_.broker, std::string(LITTER) + "/#").empty();
    };
    if (!support::eventually(clean, NEVER)) {
        place_.findings.breach(name() + " cannot clean up any more");
    }
}

void Sweeper::onTopicCleaned(mqtt::Topic const& /*topic*/) {
    ++cleaned_;
}

void Sweeper::onAllTopicsCleaned() {
    ++all_;
}

} // namespace chaos
