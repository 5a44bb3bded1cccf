#include "benchmark_client.hpp"

#ifdef ZYM_BENCH_WITH_PAHO

#include <mqtt/async_client.h>

#include <chrono>
#include <deque>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

/// More than the window of every measurement: Paho refuses what exceeds its buffer, and notices
/// only after up to a second that there is room again.
constexpr int PAHO_LIMIT = 65535;
/// What the broker keeps in flight for one client by default. At QoS 2, messages that Paho sends
/// beyond that are lost.
constexpr std::size_t MOST_IN_FLIGHT = 20;

template <class Token>
void finish(Token const& token) {
    if (!token->wait_for(std::chrono::minutes(1))) {
        throw std::runtime_error("an operation of Paho does not end");
    }
}

/// Without persistence, which the other libraries do not have either.
class PahoClient final : public ClientWithTopics<mqtt::string_ref> {
public:
    explicit PahoClient(BenchmarkBroker const& broker)
        : client_("tcp://" + broker.host() + ':' + std::to_string(broker.port()), nextName(),
                  PAHO_LIMIT, nullptr) {
        client_.set_message_callback([this](mqtt::const_message_ptr const& message) {
            auto const& payload = message->get_payload_ref();
            onMessage({payload.data(), payload.length()});
        });
    }
    ~PahoClient() override {
        disconnect();
        // Returns when Paho's threads are outside the old callback.
        client_.set_message_callback([](mqtt::const_message_ptr const& /*message*/) {});
    }

    void connect() override {
        finish(client_.connect(mqtt::connect_options_builder()
                                   .clean_session(true)
                                   .keep_alive_interval(std::chrono::seconds(30))
                                   .max_inflight(PAHO_LIMIT)
                                   .finalize()));
    }
    void disconnect() override {
        if (client_.is_connected()) {
            finish(client_.disconnect());
        }
    }

    void subscribe(TopicId topic) override { client_.subscribe(formOf(topic).str(), 0); }
    void unsubscribe(TopicId topic) override { client_.unsubscribe(formOf(topic).str()); }
    void publish(TopicId topic, std::string const& payload, int qos, bool retain) override {
        send(topic, payload, qos, retain);
    }
    void publishInStream(TopicId topic, std::string const& payload, int qos, bool retain) override {
        auto token = send(topic, payload, qos, retain);
        if (qos == 2) {
            inFlight_.push_back(std::move(token));
            if (inFlight_.size() == MOST_IN_FLIGHT) {
                waitForHalf();
            }
        }
    }
    void publishAndWait(TopicId topic, std::string const& payload, int qos) override {
        finish(send(topic, payload, qos, false));
    }

private:
    static std::string nextName() {
        static unsigned last = 0;
        return "paho-" + std::to_string(++last);
    }

    mqtt::delivery_token_ptr send(TopicId topic, std::string const& payload, int qos, bool retain) {
        return client_.publish(formOf(topic), payload.data(), payload.size(), qos, retain);
    }

    /// Not for all of them: publisher and broker would take turns in doing nothing.
    void waitForHalf() {
        while (inFlight_.size() > MOST_IN_FLIGHT / 2) {
            finish(inFlight_.front());
            inFlight_.pop_front();
        }
    }

    std::deque<mqtt::delivery_token_ptr> inFlight_;
    mqtt::async_client client_;
};

} // namespace

std::optional<ClientLibrary> pahoLibrary() {
    return ClientLibrary{"Paho", std::make_unique<PahoClient, BenchmarkBroker const&>};
}

} // namespace bench

#else

std::optional<bench::ClientLibrary> bench::pahoLibrary() {
    return std::nullopt;
}

#endif
