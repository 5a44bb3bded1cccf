#include "chaos/workload.hpp"

#include "support/raw_peer.hpp"

namespace chaos {

Workload::Workload(TestBed& testBed) : testBed_(testBed) {
    addPublishers();
    addMonitors();
    addServices();
}

Workload::~Workload() {
    for (auto const& worker : workers_) {
        worker->pause();
    }
}

NumberSequence* Workload::add(Sequences& group, std::string const& topic, Delivery delivery) {
    sequences_.push_back(std::make_unique<NumberSequence>("chaos/" + topic, delivery));
    group.push_back(sequences_.back().get());
    return group.back();
}

void Workload::addPublishers() {
    auto const text = [this](std::string const& name, Delivery delivery) {
        return add(texts_, "text/" + name, delivery);
    };
    auto const publisher = [this](std::string const& name, bool typed, Sequences const& all) {
        auto made = makePublisher(testBed_, name, typed, all);
        publishers_.push_back(made.get());
        workers_.push_back(std::move(made));
    };
    publisher("persistent texts", false,
              {text("persistent-2-retained", {2, true, true}),
               text("persistent-2-event", {2, true, false}),
               text("persistent-1-retained", {1, true, true})});
    publisher("one persistent text", false, {text("persistent-2-alone", {2, true, true})});
    publisher("clean texts", false,
              {text("clean-2-retained", {2, false, true}),
               text("clean-1-retained", {1, false, true}),
               text("clean-0-event", {0, false, false})});
    publisher("persistent values", true, {add(values_, "value/persistent", {2, true, true})});
    publisher("clean values", true, {add(values_, "value/clean", {2, false, true})});
}

void Workload::addMonitors() {
    auto const monitor = [this](std::string const& name, MonitorOptions const& options) {
        monitors_.push_back(
            std::make_unique<TopicMonitor>(testBed_, name, options, texts_, values_));
    };
    monitor("direct monitor", {true, false, false});
    monitor("direct monitor by pattern", {true, true, true});
    monitor("monitor", {false, false, true});
    monitor("persistent monitor", {false, true, false});
}

void Workload::addServices() {
    std::string const first = "chaos/server/a";
    std::string const second = "chaos/server/b";
    servers_.push_back(makeNumberServer(testBed_, first));
    servers_.push_back(makeNumberServer(testBed_, second));
    servers_.push_back(makeBindingServer(testBed_));
    servers_.push_back(makeDiscoverableDevice(testBed_));
    workers_.push_back(makeRequestWorker(testBed_, "requests", first, false, 1));
    workers_.push_back(makeRequestWorker(testBed_, "persistent requests", first, true, 1000000000));
    workers_.push_back(makeRequestWorker(testBed_, "other requests", second, false, 1));
    workers_.push_back(makeBindingWorker(testBed_, "binding"));
    workers_.push_back(makeBindingWorker(testBed_, "other binding"));
    workers_.push_back(makeTimeReader(testBed_));
    workers_.push_back(makeDiscoveryWorker(testBed_));
    workers_.push_back(makeCleaningWorker(testBed_));
    workers_.push_back(makeShortLivedClients(testBed_, second));
}

void Workload::start() {
    for (auto const& worker : workers_) {
        worker->start();
    }
}

void Workload::pauseAndVerify() {
    pause();
    waitForConnections();
    waitForLastNumbers();
    checkRetainedValues();
    for (auto const& worker : workers_) {
        worker->verify();
    }
    testBed_.brokerIsKilled = false;
}

void Workload::pause() {
    for (auto const& worker : workers_) {
        worker->pause();
    }
    for (auto const& worker : workers_) {
        worker->waitUntilPaused();
    }
}

void Workload::waitForConnections() {
    auto const check = [this](auto const& all) {
        for (auto const& one : all) {
            testBed_.report.check(
                support::eventually([&] { return one->connected(); }, END_DEADLINE),
                one->name() + ": does not get connected any more");
        }
    };
    check(publishers_);
    check(monitors_);
}

/// Publishes again and again: a cut that was ordered before may still come, and a subscriber that
/// is connected may not be subscribed yet.
void Workload::waitForLastNumbers() {
    auto const end = std::chrono::steady_clock::now() + END_DEADLINE;
    do {
        for (Publisher* const publisher : publishers_) {
            publisher->publishOnce();
        }
        if (support::eventually([&] { return missingTopics().empty(); }, std::chrono::seconds(2))) {
            return;
        }
    } while (std::chrono::steady_clock::now() < end);
    testBed_.report.violation("the last values do not arrive:" + missingTopics());
}

std::string Workload::missingTopics() const {
    for (auto const& monitor : monitors_) {
        if (auto const missing = monitor->missingTopics(); !missing.empty()) {
            return " " + monitor->name() + ":" + missing;
        }
    }
    return "";
}

void Workload::checkRetainedValues() {
    auto const check = [this](NumberSequence const& sequence, auto const& numberIn) {
        if (sequence.delivery().retained) {
            auto const found = support::allRetained(testBed_.broker, sequence.topic() + "/#");
            testBed_.report.check(found.size() == 1
                                      && numberIn(found[0].payload) == sequence.published(),
                                  sequence.topic() + ": the retained value is not the last one");
            testBed_.report.count("retained values checked");
        }
    };
    for (NumberSequence const* const text : texts_) {
        check(*text, numberInText);
    }
    for (NumberSequence const* const value : values_) {
        check(*value, numberInValue);
    }
}

} // namespace chaos
