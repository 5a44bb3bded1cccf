#include "benchmark_client.hpp"
#include "mqtt/mosquittopp.hpp"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <stdexcept>
#include <thread>

namespace bench {
namespace {

constexpr int KEEP_ALIVE_SECONDS = 30;

void require(int result, char const* operation) {
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string("raw ") + operation + ": " + mosqpp::strerror(result));
    }
}

class RawClient final : public ClientWithTopics<std::string>, private mosqpp::mosquittopp {
public:
    RawClient(BenchmarkBroker const& broker, bool acknowledgesPromptly)
        : mosqpp::mosquittopp(nullptr, true),
          host_(broker.host()),
          port_(broker.port()),
          acknowledgesPromptly_(acknowledgesPromptly) {
        if (auto const tls = broker.connectionOptions().tls) {
            require(tls_set(tls->caFile.c_str()), "tls_set");
        }
    }
    ~RawClient() override { disconnect(); }

    void connect() override {
        accepted_.reset();
        require(mosqpp::mosquittopp::connect(host_.c_str(), port_, KEEP_ALIVE_SECONDS), "connect");
        startThread();
        accepted_.waitFor(1);
    }
    /// The library's thread must have ended before the members that the callbacks use go.
    void disconnect() override {
        if (!running_) {
            return;
        }
        mosqpp::mosquittopp::disconnect();
        if (acknowledgesPromptly_) {
            thread_.join();
        } else {
            loop_stop();
        }
        running_ = false;
    }

    void subscribe(TopicId topic) override {
        require(mosqpp::mosquittopp::subscribe(nullptr, formOf(topic).c_str(), 0), "subscribe");
    }
    void unsubscribe(TopicId topic) override {
        require(mosqpp::mosquittopp::unsubscribe(nullptr, formOf(topic).c_str()), "unsubscribe");
    }
    void publish(TopicId topic, std::string const& payload, int qos, bool retain) override {
        require(mosqpp::mosquittopp::publish(nullptr, formOf(topic).c_str(),
                                             static_cast<int>(payload.size()), payload.data(), qos,
                                             retain),
                "publish");
    }
    void publishAndWait(TopicId topic, std::string const& payload, int qos) override {
        acknowledged_.reset();
        publish(topic, payload, qos, false);
        acknowledged_.waitFor(1);
    }

private:
    void startThread() {
        if (acknowledgesPromptly_) {
            threaded_set(true);
            thread_ = std::thread([this] { runStepsAndAcknowledge(); });
        } else {
            require(loop_start(), "loop_start");
        }
        running_ = true;
    }

    void runStepsAndAcknowledge() {
        while (loop() == MOSQ_ERR_SUCCESS) {
            int const on = 1;
            ::setsockopt(socket(), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
        }
    }

    void on_connect(int code) override {
        if (code == 0) {
            accepted_.add();
        }
    }
    void on_message(mosquitto_message const* message) override {
        onMessage({static_cast<char const*>(message->payload),
                   static_cast<std::size_t>(message->payloadlen)});
    }
    void on_publish(int /*messageId*/) override { acknowledged_.add(); }

    std::string const host_;
    int const port_;
    bool const acknowledgesPromptly_;
    MessageCounter accepted_;
    MessageCounter acknowledged_;
    std::thread thread_;
    bool running_ = false;
};

ClientLibrary makeLibrary(char const* name, bool acknowledgesPromptly) {
    return {name, [=](BenchmarkBroker const& broker) {
                return std::make_unique<RawClient>(broker, acknowledgesPromptly);
            }};
}

} // namespace

ClientLibrary rawLibrary(char const* name) {
    return makeLibrary(name, false);
}

ClientLibrary rawLibraryWithPromptAcknowledgements() {
    return makeLibrary("raw, prompt", true);
}

} // namespace bench
