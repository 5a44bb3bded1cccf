#include "chaos/workers.hpp"

#include "support/raw_peer.hpp"
#include "support/test_client.hpp"

#include <mqtt/service_discoverer.hpp>
#include <mqtt/topic_cleaner.hpp>

#include <atomic>

namespace chaos {

namespace {

constexpr char const* DEVICE_TOPIC = "chaos/device";
constexpr char const* CLEANED_TOPIC = "chaos/cleaned";
constexpr int ENTITIES = 5;

class DiscoverableDevice final : public Server, private mqtt::MqttClient::Listener {
public:
    explicit DiscoverableDevice(TestBed& testBed) {
        int const port = testBed.newProxy();
        client_ = support::testClient(testBed.broker.host(), port, {true, false});
        links_ = std::make_unique<mqtt::MqttDataCollection<mqtt::Link>>(*client_, DEVICE_TOPIC);
        for (int i = 0; i < ENTITIES; ++i) {
            auto const topic = std::string(DEVICE_TOPIC) + "/entity" + std::to_string(i);
            links_->value.push_back({topic});
            entities_.push_back(
                std::make_unique<mqtt::MqttData<conv::Identification>>(*client_, topic));
            entities_.back()->value.name = "entity " + std::to_string(i);
        }
        client_->registerListener(this);
        client_->connect(testBed.broker.host(), port, 5);
    }
    ~DiscoverableDevice() override { client_->unregisterListener(this); }

private:
    void onComStateChanged(conv::ComState state) override {
        if (state == conv::ComState::CONNECTED) {
            for (auto const& entity : entities_) {
                entity->publish();
            }
            links_->publish();
        }
    }

    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::MqttDataCollection<mqtt::Link>> links_;
    std::vector<std::unique_ptr<mqtt::MqttData<conv::Identification>>> entities_;
};

class DiscoveryWorker final : public Worker {
public:
    explicit DiscoveryWorker(TestBed& on)
        : Worker(on, "discovery"),
          client_(support::testClient(testBed.broker.host(), testBed.newProxy())),
          discoverer_(std::make_unique<mqtt::ServiceDiscovererMqtt>(*client_, DEVICE_TOPIC)) {}
    ~DiscoveryWorker() override {
        end();
        discoverer_.reset();
    }

    void verify() override {
        check(support::eventually([this] { return discover(); }, END_DEADLINE),
              "finds nothing any more");
    }

private:
    void step() override {
        discover();
        wait(0, 100);
    }

    bool discover() {
        bool const complete = discoverer_->discoverSync(2, true);
        count(complete ? "discoveries made" : "discoveries that timed out");
        if (complete) {
            auto const entities = discoverer_->entities();
            bool correct = entities.size() == static_cast<std::size_t>(ENTITIES);
            for (std::size_t i = 0; correct && i < entities.size(); ++i) {
                correct = entities[i].name == "entity " + std::to_string(i);
            }
            check(correct, "complete, but wrong");
        }
        return complete;
    }

    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::ServiceDiscovererMqtt> discoverer_;
};

class CleaningWorker final : public Worker, private mqtt::TopicCleaner::Listener {
public:
    explicit CleaningWorker(TestBed& on)
        : Worker(on, "cleaning"),
          cleanersPort_(testBed.newProxy()),
          client_(support::testClient(testBed.broker.host(), testBed.newProxy(), {true})) {}
    ~CleaningWorker() override { end(); }

    void verify() override {
        auto const isClean = [this] {
            clean();
            return support::allRetained(testBed.broker, std::string(CLEANED_TOPIC) + "/#").empty();
        };
        check(support::eventually(isClean, END_DEADLINE), "cannot clean any more");
    }

private:
    void step() override {
        for (int n = random.between(1, 20); n > 0; --n) {
            client_->publish(std::string(CLEANED_TOPIC) + '/' + std::to_string(n), "old", 1, true);
        }
        clean();
        wait(0, 100);
    }

    void clean() {
        topicsCleaned_ = 0;
        allCleaned_ = 0;
        bool done = false;
        {
            mqtt::TopicCleaner cleaner(this, support::uniqueId(), testBed.broker.host(),
                                       cleanersPort_);
            cleaner.clean(std::string(CLEANED_TOPIC) + "/#", std::chrono::seconds(1));
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

std::unique_ptr<Server> makeDiscoverableDevice(TestBed& testBed) {
    return std::make_unique<DiscoverableDevice>(testBed);
}

std::unique_ptr<Worker> makeDiscoveryWorker(TestBed& testBed) {
    return std::make_unique<DiscoveryWorker>(testBed);
}

std::unique_ptr<Worker> makeCleaningWorker(TestBed& testBed) {
    return std::make_unique<CleaningWorker>(testBed);
}

} // namespace chaos
