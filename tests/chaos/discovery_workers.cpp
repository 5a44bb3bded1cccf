#include "chaos/workload.hpp"

#include "support/raw_peer.hpp"

#include <mqtt/payloads.hpp>
#include <mqtt/service_discoverer.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <atomic>
#include <deque>

namespace chaos {

namespace {

using Identification = mqtt::MqttData<conv::Identification>;

constexpr char const* DEVICE_TOPIC = "chaos/device";
constexpr std::size_t ENTITIES = 5;
std::string const CLEANED_TOPIC = "chaos/cleaned/";

std::string nameOf(std::size_t entity) {
    return "entity" + std::to_string(entity);
}

/// Retains a list of links and their entities, again with every connection.
class DiscoverableDevice final : private mqtt::MqttClient::Listener {
public:
    explicit DiscoverableDevice(TestBed& testBed) : client_(testBed.newClient({true})) {
        for (std::size_t i = 0; i < ENTITIES; ++i) {
            auto const topic = std::string(DEVICE_TOPIC) + "/" + nameOf(i);
            links_.value.push_back({topic});
            entities_.emplace_back(*client_, topic).value.name = nameOf(i);
        }
        client_->registerListener(this);
        publish();
    }

private:
    void publish() {
        for (auto& entity : entities_) {
            entity.publish();
        }
        links_.publish();
    }
    void onComStateChanged(conv::ComState state) override {
        if (state == conv::ComState::CONNECTED) {
            publish();
        }
    }

    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::MqttDataCollection<mqtt::Link> links_{*client_, DEVICE_TOPIC};
    std::deque<Identification> entities_;
};

class DiscoveryWorker final : public Worker {
public:
    explicit DiscoveryWorker(TestBed& on)
        : Worker(on, "discovery", 100), client_(testBed.newClient()) {}

private:
    bool step() override {
        bool const complete = discoverer_.discoverSync(2, true);
        count(complete ? "discoveries made" : "discoveries that timed out");
        auto const entities = discoverer_.entities();
        check(!complete || entities.size() == ENTITIES, "complete, but not all");
        for (std::size_t i = 0; complete && i < entities.size(); ++i) {
            check(entities[i].name == nameOf(i), "complete, but wrong");
        }
        return complete;
    }

    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::ServiceDiscovererMqtt discoverer_{*client_, DEVICE_TOPIC};
};

/// Retains messages and removes them, each time with a new cleaner.
class CleaningWorker final : public Worker, private mqtt::TopicCleaner::Listener {
public:
    explicit CleaningWorker(TestBed& on)
        : Worker(on, "cleaning", 100),
          cleanersPort_(testBed.newProxy()),
          client_(testBed.newClient({true})) {}

    /// Publishes nothing.
    void verify() override {
        auto const isClean = [this] {
            clean();
            return support::allRetained(testBed.broker, CLEANED_TOPIC + "#").empty();
        };
        check(support::eventually(isClean, END_DEADLINE), "cannot clean any more");
    }

private:
    bool step() override {
        for (int n = random.between(1, 20); n > 0; --n) {
            client_->publish(CLEANED_TOPIC + std::to_string(n), "old", 1, true);
        }
        clean();
        return true;
    }

    void clean() {
        topicsCleaned_ = 0;
        allCleaned_ = 0;
        bool done = false;
        {
            mqtt::TopicCleaner cleaner(this, support::uniqueId(), testBed.broker.host(),
                                       cleanersPort_);
            cleaner.clean(CLEANED_TOPIC + "#", std::chrono::seconds(1));
            // Some cleaners are destroyed while they work.
            if (random.percent(80)) {
                done = cleaner.waitAllTasks(END_DEADLINE);
                check(done, "cleaning never ended");
            }
        }
        count(done ? "cleanings made" : "cleaners destroyed while they worked");
        // After the end of the cleaner, which makes two calls one after the other.
        check(topicsCleaned_ <= 1 && allCleaned_ <= 1
                  && (!done || (topicsCleaned_ == 1 && allCleaned_ == 1)),
              "not told once that all is cleaned");
    }

    void onTopicCleaned(mqtt::Topic const& /*topic*/) override { ++topicsCleaned_; }
    void onAllTopicsCleaned() override { ++allCleaned_; }

    int const cleanersPort_;
    std::atomic<int> topicsCleaned_{0};
    std::atomic<int> allCleaned_{0};
    std::unique_ptr<mqtt::MqttClient> client_;
};

} // namespace

void addDiscoveryWorkers(TestBed& testBed, Services& services) {
    services.servers.push_back(std::make_shared<DiscoverableDevice>(testBed));
    services.workers.push_back(std::make_unique<DiscoveryWorker>(testBed));
    services.workers.push_back(std::make_unique<CleaningWorker>(testBed));
}

} // namespace chaos
