#include "chaos/workload.hpp"

#include "support/raw_peer.hpp"

namespace chaos {

Workload::Workload(TestBed& testBed) : testBed_(testBed), services_(testBed) {
    // Each: QoS, persistent session, retained.
    addPublisher("persistent publisher", {{2, true, true}, {2, true, false}, {1, true, true}});
    addPublisher("persistent publisher of one topic", {{2, true, true}});
    addPublisher("publisher", {{2, false, true}, {1, false, true}, {0, false, false}});

    Sequences all;
    for (auto const& sequence : sequences_) {
        all.push_back(sequence.get());
    }
    std::pair<char const*, MonitorOptions> const monitors[] = {
        {"direct monitor", {true, false, false}},
        {"direct monitor by pattern", {true, true, true}},
        {"monitor", {false, false, true}},
        {"persistent monitor", {false, true, false}},
    };
    for (auto const& [name, options] : monitors) {
        monitors_.push_back(std::make_unique<TopicMonitor>(testBed, name, options, all));
    }
    for (auto const& worker : services_.workers) {
        workers_.push_back(worker.get());
    }
}

Workload::~Workload() {
    for (Worker* const worker : workers_) {
        worker->pause(); // all at once, before the wait for the first one
    }
    for (Worker* const worker : workers_) {
        worker->end();
    }
}

void Workload::addPublisher(std::string const& name, std::vector<Delivery> const& deliveries) {
    Sequences added;
    for (Delivery const& delivery : deliveries) {
        auto const topic = "chaos/number/" + std::to_string(sequences_.size()) + "-qos"
                           + std::to_string(delivery.qos);
        sequences_.push_back(std::make_unique<NumberSequence>(topic, delivery));
        added.push_back(sequences_.back().get());
    }
    publishers_.push_back(std::make_unique<Publisher>(testBed_, name, added));
    workers_.push_back(publishers_.back().get());
}

void Workload::start() {
    for (Worker* const worker : workers_) {
        worker->start();
    }
}

void Workload::pauseAndVerify() {
    for (Worker* const worker : workers_) {
        worker->pause();
    }
    for (Worker* const worker : workers_) {
        worker->waitUntilPaused();
    }
    waitForConnections();
    waitForLastNumbers();
    checkRetainedValues();
    for (Worker* const worker : workers_) {
        worker->verify();
    }
    testBed_.brokerIsKilled = false;
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
        for (auto const& publisher : publishers_) {
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
    for (auto const& sequence : sequences_) {
        if (sequence->delivery().retained) {
            auto const found = support::allRetained(testBed_.broker, sequence->topic() + "/#");
            testBed_.report.check(found.size() == 1
                                      && numberIn(found[0].payload) == sequence->published(),
                                  sequence->topic() + ": the retained value is not the last one");
            testBed_.report.count("retained values checked");
        }
    }
}

} // namespace chaos
