#include "chaos/workers.hpp"

#include "support/test_client.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>

#include <algorithm>
#include <cstdlib>

namespace chaos {

namespace {

using Status = conv::CommunicationStatus;

/// How far a publisher may be ahead of the direct subscribers.
constexpr std::uint64_t MAX_AHEAD = 400;

/// A payload with a number, of any length: some need several TCP segments. Its end shows whether it
/// is complete.
std::string textWith(std::uint64_t number, Random& random) {
    int const length = random.percent(2) ? random.between(2000, 20000) : random.between(0, 120);
    return std::to_string(number) + ' ' + std::string(static_cast<std::size_t>(length), '.') + ' '
           + std::to_string(length);
}

class SequencePublisher final : public Publisher, private mqtt::MqttClient::Listener {
public:
    SequencePublisher(TestBed& on, std::string const& name, bool typed, Sequences const& sequences)
        : Publisher(on, name), sequences_(sequences) {
        int const port = testBed.newProxy();
        bool const persistent = sequences.front()->delivery().persistent;
        client_ = support::testClient(testBed.broker.host(), port, {persistent});
        for (NumberSequence* const sequence : sequences_) {
            sequence->usesProxy(*testBed.proxies.back());
            endpoints_.push_back(
                typed ? std::make_unique<mqtt::MqttData<Status>>(*client_, sequence->topic())
                      : nullptr);
        }
        client_->registerListener(this);
    }
    ~SequencePublisher() override {
        end();
        endpoints_.clear();
        client_->unregisterListener(this);
        client_->disconnect(5);
    }

    void publishOnce() override {
        for (std::size_t i = 0; i < sequences_.size(); ++i) {
            publishNext(i);
        }
    }
    bool connected() const override {
        return client_->communicationState() == conv::ComState::CONNECTED;
    }

private:
    void step() override {
        auto const tooFarAhead = [](NumberSequence const* sequence) {
            return sequence->notArrived() > MAX_AHEAD;
        };
        for (int n = random.between(1, 8); n > 0; --n) {
            if (std::any_of(sequences_.begin(), sequences_.end(), tooFarAhead)) {
                break;
            }
            publishNext(static_cast<std::size_t>(
                random.between(0, static_cast<int>(sequences_.size()) - 1)));
            count("values published");
        }
        wait(1, 20);
    }

    void publishNext(std::size_t i) {
        auto& sequence = *sequences_[i];
        auto const number = sequence.next();
        if (endpoints_[i] == nullptr) {
            client_->publish(sequence.topic(), textWith(number, random), sequence.delivery().qos,
                             sequence.delivery().retained);
            return;
        }
        mqtt::MqttDataBase::Lock lock(endpoints_[i]->mutex());
        endpoints_[i]->value.state = conv::ComState::CONNECTED;
        endpoints_[i]->value.since = conv::UnixTime(static_cast<double>(number));
        endpoints_[i]->publish(lock);
    }

    void onComStateChanged(conv::ComState state) override {
        if (state == conv::ComState::CONNECTION_LOST) {
            count("connections lost by publishers");
            for (NumberSequence* const sequence : sequences_) {
                sequence->publisherLostConnection();
            }
        }
    }

    Sequences const sequences_;
    std::unique_ptr<mqtt::MqttClient> client_;
    std::vector<std::unique_ptr<mqtt::MqttData<Status>>> endpoints_; ///< null for texts
};

} // namespace

std::unique_ptr<Publisher> makePublisher(TestBed& testBed, std::string const& name, bool typed,
                                         Sequences const& sequences) {
    return std::make_unique<SequencePublisher>(testBed, name, typed, sequences);
}

std::uint64_t numberInText(std::string const& payload) {
    auto const first = payload.find(' ');
    auto const last = payload.rfind(' ');
    bool const complete =
        first != last && last - first - 1 == std::strtoull(payload.c_str() + last + 1, nullptr, 10);
    return complete ? std::strtoull(payload.c_str(), nullptr, 10) : 0;
}

std::uint64_t numberInValue(std::string const& payload) {
    Status value;
    mqtt::MqttData<Status>::deserialize({}, payload, false, value);
    return value.since.valid == 0 ? 0 : static_cast<std::uint64_t>(value.since.seconds);
}

} // namespace chaos
