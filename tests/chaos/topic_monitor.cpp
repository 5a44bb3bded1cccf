#include "chaos/topic_monitor.hpp"

#include "chaos/workers.hpp"

#include "support/test_client.hpp"

#include <algorithm>

namespace chaos {

TopicMonitor::TopicMonitor(TestBed& testBed, std::string const& name, MonitorOptions const& options,
                           Sequences const& texts, Sequences const& values)
    : testBed_(testBed), name_(name), options_(options) {
    for (auto const& all : {texts, values}) {
        for (NumberSequence* const sequence : all) {
            topics_.push_back({sequence, std::make_unique<SequenceChecker>(
                                             *sequence, testBed.report, name,
                                             options.persistent && !options.direct)});
        }
    }
    int const port = options.direct ? testBed.broker.port() : testBed.newProxy();
    client_ = support::testClient(testBed.broker.host(), port, {options.persistent, false});
    client_->registerListener(this);
    if (options_.byPattern) {
        static_cast<void>(client_->subscribe("chaos/text/+", this, 0));
    } else {
        for (NumberSequence const* const text : texts) {
            static_cast<void>(client_->subscribe(text->topic(), this, 0));
        }
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
        endpoints_.push_back(std::make_unique<Endpoint>(*client_, values[i]->topic()));
        endpoints_.back()->subscribe(this, static_cast<int>(texts.size() + i));
    }
    client_->connect(testBed.broker.host(), port, 5);
}

TopicMonitor::~TopicMonitor() {
    endpoints_.clear();
    client_->release(this);
    client_->unregisterListener(this);
    client_->disconnect(5);
    client_.reset();
}

std::string TopicMonitor::missingTopics() const {
    std::string missing;
    for (Topic const& topic : topics_) {
        if (topic.checker->last() < topic.sequence->published()) {
            missing += " " + topic.sequence->topic();
        }
    }
    return missing;
}

void TopicMonitor::receive(Topic const* topic, std::uint64_t number) {
    if (topic == nullptr || number == 0) {
        testBed_.report.violation(name_ + ": received what was not published");
        return;
    }
    topic->checker->check(number, losses_);
    if (options_.direct) {
        topic->sequence->arrived(number);
    }
}

void TopicMonitor::onMqttMessage(int /*tag*/, mqtt::Topic const& topic,
                                 std::string const& payload) {
    auto const found = std::find_if(topics_.begin(), topics_.end(), [&](Topic const& one) {
        return one.sequence->topic() == topic.text();
    });
    receive(found == topics_.end() ? nullptr : &*found, numberInText(payload));
}

void TopicMonitor::onMqttData(conv::CommunicationStatus const& value, bool empty, int id) {
    bool const valid = !empty && value.since.valid != 0;
    receive(&topics_.at(static_cast<std::size_t>(id)),
            valid ? static_cast<std::uint64_t>(value.since.seconds) : 0);
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
