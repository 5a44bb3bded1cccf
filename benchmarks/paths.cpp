// Between the broker library and the application, with the allocations on the way.

#include "in_process.hpp"
#include "rapidjson_documents.hpp"
#include "samples.hpp"

#include "support/allocations.hpp"

#include <mqtt/payloads.hpp>

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

namespace bench {
namespace {

constexpr char const* TOPIC = "plant/hall-seventeen/device-0815";

using TimedAction = std::function<std::size_t()>;

/// What one would write by hand: a table of handlers under a lock, and strings.
class HandwrittenClient {
public:
    using Handler = std::function<void(std::string const& payload)>;

    void subscribe(std::string const& topic, Handler handler) {
        handlers_[topic] = std::move(handler);
    }

    std::size_t receive(mosquitto_message const& message) {
        std::string const topic(message.topic);
        std::string const payload(static_cast<char const*>(message.payload),
                                  static_cast<std::size_t>(message.payloadlen));
        std::lock_guard<std::mutex> const lock(mutex_);
        handlers_.at(topic)(payload);
        return payload.size();
    }

    std::size_t publish(std::string const& topic, std::string const& payload) {
        std::lock_guard<std::mutex> const lock(mutex_);
        sentBytes_ += topic.size() + payload.size();
        return sentBytes_;
    }

private:
    std::mutex mutex_;
    std::map<std::string, Handler> handlers_;
    std::size_t sentBytes_ = 0;
};

struct ConnectedClient : mqtt::MqttClient {
    ConnectedClient() : mqtt::MqttClient(zym::common::Uuid(1), false, "", "", 0, false) {
        if (connect("nowhere", 1883, 30) != Error::SUCCESS) {
            throw std::runtime_error("the null broker library does not accept the connection");
        }
    }
};

class TextSubscriber final : public mqtt::MqttClient::Subscriber {
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& payload) override {
        resultOfTimedAction = payload.size();
    }
};

template <class T>
class ValueSubscriber final : public mqtt::MqttData<T>::Subscriber {
    void onMqttData(T const& /*value*/, bool /*empty*/, int /*id*/) override {
        resultOfTimedAction = 1;
    }
};

void measurePath(Options const& options, std::string const& name, TimedAction const& ours,
                 TimedAction const& byHand) {
    auto const figures = [&](TimedAction const& action) {
        action(); // prepares what the next ones use again
        support::AllocationCount const count;
        action();
        auto const allocations = static_cast<double>(count.value());
        return Figures{
            {"allocations", "", allocations},
            {"processor time", "ns", nanosecondsPerCall(action, options.secondsInProcess)}};
    };
    measureInTurns(options, {"paths", name},
                   {{"by hand", [&](int) { return figures(byHand); }},
                    {"ours", [&](int) { return figures(ours); }}});
}

void measureTexts(Options const& options) {
    ConnectedClient client;
    TextSubscriber subscriber;
    HandwrittenClient byHand;
    mqtt::Topic const topic(TOPIC);
    if (client.subscribe(topic, &subscriber, 0) != mqtt::MqttClient::Error::SUCCESS) {
        throw std::runtime_error("cannot subscribe");
    }
    byHand.subscribe(TOPIC, [](auto const& payload) { resultOfTimedAction = payload.size(); });
    std::string const text(1000, 'x');
    std::string topicText = TOPIC;
    for (std::string payload : {std::string("21.5"), text}) {
        auto const message = messageOf(topicText.data(), payload);
        measurePath(
            options, "receive " + std::to_string(payload.size()) + " bytes",
            [&] { return receive(client, message); }, [&] { return byHand.receive(message); });
    }
    measurePath(
        options, "send 1000 bytes",
        [&] { return static_cast<std::size_t>(client.publish(topic, text, 1, true)); },
        [&] { return byHand.publish(TOPIC, text); });
    client.release(&subscriber);
}

template <class T>
void measureValues(Options const& options, T const& sample, std::string const& name) {
    ConnectedClient client;
    ValueSubscriber<T> subscriber;
    HandwrittenClient byHand;
    mqtt::MqttData<T> endpoint(client, mqtt::Topic(TOPIC));
    std::string topic = endpoint.topicBase().text();
    std::string text;
    mqtt::MqttData<T>::serialize(endpoint.topicBase(), text, sample);
    auto const message = messageOf(topic.data(), text);
    T value = sample;
    endpoint.subscribe(&subscriber, 0);
    byHand.subscribe(topic, [&](auto const& payload) { rapid::read(payload, value); });
    measurePath(
        options, "receive " + name, [&] { return receive(client, message); },
        [&] { return byHand.receive(message); });

    mqtt::MqttData<T> sender(client, mqtt::Topic(TOPIC));
    sender.value = sample;
    auto const asText = [](auto const& buffer) {
        return std::string(buffer.GetString(), buffer.GetSize());
    };
    measurePath(
        options, "send " + name, [&] { return sender.publish(), std::size_t{1}; },
        [&] { return byHand.publish(std::string(TOPIC) + "/value", rapid::write(value, asText)); });
}

} // namespace

void measurePaths(Options const& options) {
    measureTexts(options);
    measureValues(options, sampleCommunication(), "a status");
    measureValues(options, sampleIdentification(), "an identification");
}

} // namespace bench
