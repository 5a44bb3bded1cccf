#include "chaos/number_sequence.hpp"
#include "chaos/workload.hpp"

#include "mqtt/test/raw_peer.hpp"

#include <algorithm>
#include <cstdlib>
#include <deque>

namespace chaos {

namespace {

/// How far a publisher may be ahead of the direct subscribers.
constexpr std::uint64_t MAX_AHEAD = 400;

/// A payload with a number, of any length: some need several TCP segments. Its end shows whether it
/// is complete.
std::string payloadWith(std::uint64_t number, Random& random) {
    int const length = random.percent(2) ? random.between(2000, 20000) : random.between(0, 120);
    return std::to_string(number) + ' ' + std::string(static_cast<std::size_t>(length), '.') + ' '
           + std::to_string(length);
}

/// The number in a payload that a publisher has sent; 0 in all others.
std::uint64_t numberIn(std::string const& payload) {
    auto const first = payload.find(' ');
    auto const last = payload.rfind(' ');
    bool const complete =
        first != last && last - first - 1 == std::strtoull(payload.c_str() + last + 1, nullptr, 10);
    return complete ? std::strtoull(payload.c_str(), nullptr, 10) : 0;
}

bool isConnected(mqtt::MqttClient const& client) {
    return client.communicationState() == conv::ComState::CONNECTED;
}

struct MonitorOptions {
    char const* name;
    bool direct; ///< no proxy before the broker: only a kill of the broker ends its connection
    bool persistent;
    bool byPattern; ///< one subscription for all sequences
};

/// Publishes the numbers of its sequences over one proxy.
class Publisher final : public Worker, private mqtt::MqttClient::Listener {
public:
    /// @param deliveries one for each sequence; all in sessions of the same kind
    Publisher(TestBed& on, std::string const& nameOfIt, std::vector<Delivery> const& deliveries)
        : Worker(on, nameOfIt, 20), client_(testBed.newClient({deliveries[0].persistent})) {
        for (Delivery const& delivery : deliveries) {
            auto const topic = "chaos/number/" + name + std::to_string(sequences.size());
            sequences.emplace_back(topic, delivery, *testBed.proxies.back());
        }
        client_->registerListener(this);
    }

    /// Publishes the next number of each sequence. Only while it is paused.
    void publishOnce() {
        for (NumberSequence& sequence : sequences) {
            publishNext(sequence);
        }
    }
    bool connected() const { return isConnected(*client_); }

    std::deque<NumberSequence> sequences;

private:
    bool step() override {
        auto const tooFarAhead = [](NumberSequence const& sequence) {
            return sequence.notArrived() > MAX_AHEAD;
        };
        for (int n = random.between(1, 8); n > 0; --n) {
            if (std::any_of(sequences.begin(), sequences.end(), tooFarAhead)) {
                break;
            }
            publishNext(random.oneOf(sequences));
            count("values published");
        }
        return true;
    }

    void publishNext(NumberSequence& sequence) {
        client_->publish(sequence.topic(), payloadWith(sequence.next(), random),
                         sequence.delivery().qos, sequence.delivery().retained);
    }

    void onComStateChanged(conv::ComState state) override {
        if (state == conv::ComState::CONNECTION_LOST) {
            count("connections lost by publishers");
            for (NumberSequence& sequence : sequences) {
                sequence.publisherLostConnection();
            }
        }
    }

    std::unique_ptr<mqtt::MqttClient> client_;
};

/// Subscribes to all sequences of a run over one connection, and checks what arrives.
class TopicMonitor final : private mqtt::MqttClient::Subscriber,
                           private mqtt::MqttClient::Listener {
public:
    TopicMonitor(TestBed& testBed, MonitorOptions const& options,
                 std::vector<NumberSequence*> const& sequences)
        : name(options.name), testBed_(testBed), options_(options) {
        int const port = options.direct ? testBed.broker.port() : testBed.newProxy();
        client_ = mqtt::test::testClient(testBed.broker.host(), port,
                                         {options.persistent, false, zym::common::Uuid::NIL,
                                          testBed.broker.connectionOptions()});
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

    bool connected() const { return isConnected(*client_); }
    /// The sequences of which it has not received the last number.
    std::string missingTopics() const {
        std::string missing;
        for (SequenceChecker const& checker : checkers_) {
            if (checker.last() < checker.sequence().published()) {
                missing += " " + checker.sequence().topic();
            }
        }
        return missing;
    }

    std::string const name;

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& topic, std::string const& payload) override {
        auto const found =
            std::find_if(checkers_.begin(), checkers_.end(), [&](auto const& checker) {
                return checker.sequence().topic() == topic.text();
            });
        auto const number = numberIn(payload);
        if (found == checkers_.end() || number == 0) {
            testBed_.report.check(false, name + ": received what was not published");
            return;
        }
        found->check(number, losses_);
        if (options_.direct) {
            found->sequence().arrived(number);
        }
    }

    void onComStateChanged(conv::ComState state) override {
        if (state == conv::ComState::CONNECTION_LOST) {
            ++losses_;
            testBed_.report.count(options_.direct ? "connections lost by direct subscribers"
                                                  : "connections lost by other subscribers");
            testBed_.report.check(!options_.direct || testBed_.brokerIsKilled,
                                  name + ": lost its connection without a fault");
        }
    }

    TestBed& testBed_;
    MonitorOptions const options_;
    std::deque<SequenceChecker> checkers_;
    unsigned losses_ = 0; ///< of the connection; used on the client's thread
    std::unique_ptr<mqtt::MqttClient> client_;
};

/// All publishers and monitors of a run.
class NumberedValues {
public:
    NumberedValues(TestBed& testBed, Services& services) : testBed_(testBed) {
        // Each: QoS, persistent session, retained.
        std::pair<char const*, std::vector<Delivery>> const publishers[] = {
            {"persistent publisher", {{2, true, true}, {2, true, false}, {1, true, true}}},
            {"persistent publisher of one topic", {{2, true, true}}},
            {"publisher", {{2, false, true}, {1, false, true}, {0, false, false}}},
        };
        for (auto const& [name, deliveries] : publishers) {
            auto publisher = std::make_unique<Publisher>(testBed, name, deliveries);
            for (NumberSequence& sequence : publisher->sequences) {
                sequences_.push_back(&sequence);
            }
            publishers_.push_back(publisher.get());
            services.workers.push_back(std::move(publisher));
        }
        for (auto const& options : {MonitorOptions{"direct monitor", true, false, false},
                                    {"direct monitor by pattern", true, true, true},
                                    {"monitor", false, false, true},
                                    {"persistent monitor", false, true, false}}) {
            monitors_.push_back(std::make_unique<TopicMonitor>(testBed, options, sequences_));
        }
    }

    void verify() {
        waitForConnections();
        waitForLastNumbers();
        checkRetainedValues();
    }

private:
    void waitForConnections() {
        auto const check = [this](auto const& all) {
            for (auto const& one : all) {
                testBed_.report.check(
                    mqtt::test::eventually([&] { return one->connected(); }, END_DEADLINE),
                    one->name + ": does not get connected any more");
            }
        };
        check(publishers_);
        check(monitors_);
    }

    /// Publishes again and again: a cut that was ordered before may still come, and a subscriber
    /// that is connected may not be subscribed yet.
    void waitForLastNumbers() {
        auto const end = std::chrono::steady_clock::now() + END_DEADLINE;
        do {
            for (Publisher* const publisher : publishers_) {
                publisher->publishOnce();
            }
            if (mqtt::test::eventually([&] { return missingTopics().empty(); },
                                       std::chrono::seconds(2))) {
                return;
            }
        } while (std::chrono::steady_clock::now() < end);
        testBed_.report.check(false, "the last values do not arrive:" + missingTopics());
    }

    std::string missingTopics() const {
        for (auto const& monitor : monitors_) {
            if (auto const missing = monitor->missingTopics(); !missing.empty()) {
                return " " + monitor->name + ":" + missing;
            }
        }
        return "";
    }

    void checkRetainedValues() {
        for (NumberSequence const* const sequence : sequences_) {
            if (sequence->delivery().retained) {
                auto const found =
                    mqtt::test::allRetained(testBed_.broker, sequence->topic() + "/#");
                testBed_.report.check(
                    found.size() == 1 && numberIn(found[0].payload) == sequence->published(),
                    sequence->topic() + ": the retained value is not the last one");
                testBed_.report.count("retained values checked");
            }
        }
    }

    TestBed& testBed_;
    std::vector<Publisher*> publishers_;
    std::vector<NumberSequence*> sequences_; ///< of all publishers
    std::vector<std::unique_ptr<TopicMonitor>> monitors_;
};

} // namespace

std::function<void()> addPublishers(TestBed& testBed, Services& services) {
    auto const numbers = std::make_shared<NumberedValues>(testBed, services);
    return [numbers] { numbers->verify(); };
}

} // namespace chaos
