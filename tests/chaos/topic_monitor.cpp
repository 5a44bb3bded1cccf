#include "chaos/topic_monitor.hpp"

#include <algorithm>

namespace chaos {

TopicMonitor::TopicMonitor(TestBed& testBed, std::string const& name, MonitorOptions const& options,
                           Sequences const& sequences)
    : testBed_(testBed), name_(name), options_(options) {
    int const port = options.direct ? testBed.broker.port() : testBed.newProxy();
    client_ = support::testClient(testBed.broker.host(), port, {options.persistent, false});
    client_->registerListener(this);
    for (NumberSequence* const sequence : sequences) {
        checkers_.emplace_back(*sequence, testBed.report, name,
                               options.persistent && !options.direct);
        if (!options.byPattern) {
            static_cast<void>(client_->subscribe(sequence->topic(), this, 0));
        }
    }
    if (options.byPattern) {
        static_cast<void>(client_->subscribe("chaos/number/+", this, 0));
    }
    client_->connect(testBed.broker.host(), port, 5);
}

std::string TopicMonitor::missingTopics() const {
    std::string missing;
    for (SequenceChecker const& checker : checkers_) {
        if (checker.last() < checker.sequence().published()) {
            missing += " " + checker.sequence().topic();
        }
    }
    return missing;
}

void TopicMonitor::onMqttMessage(int /*tag*/, mqtt::Topic const& topic,
                                 std::string const& payload) {
    auto const found = std::find_if(checkers_.begin(), checkers_.end(), [&](auto const& checker) {
        return checker.sequence().topic() == topic.text();
    });
    auto const number = numberIn(payload);
    if (found == checkers_.end() || number == 0) {
        testBed_.report.violation(name_ + ": received what was not published");
        return;
    }
    found->check(number, losses_);
    if (options_.direct) {
        found->sequence().arrived(number);
    }
}

void TopicMonitor::onComStateChanged(conv::ComState state) {
    if (state == conv::ComState::CONNECTION_LOST) {
        ++losses_;
        testBed_.report.count(options_.direct ? "connections lost by direct subscribers"
                                              : "connections lost by other subscribers");
        testBed_.report.check(!options_.direct || testBed_.brokerIsKilled,
                              name_ + ": lost its connection without a fault");
    }
}

} // namespace chaos
