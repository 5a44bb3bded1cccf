#include "benchmark_client.hpp"
#include "mqtt/mosquittopp.hpp"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace bench {
namespace {

constexpr int KEEP_ALIVE_SECONDS = 30;

void require(int result, char const* operation) {
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string("raw ") + operation + ": " + mosqpp::strerror(result));
    }
}

class RawClient final : public BenchmarkClient, private mosqpp::mosquittopp {
public:
    RawClient(int port, bool acknowledgesPromptly)
        : mosqpp::mosquittopp(nullptr, true),
          port_(port),
          acknowledgesPromptly_(acknowledgesPromptly) {
        if (!brokersAuthority.empty()) {
            require(tls_set(brokersAuthority.c_str()), "tls_set");
        }
    }
    ~RawClient() override { stop(); }
    RawClient(RawClient const&) = delete;
    RawClient& operator=(RawClient const&) = delete;

    void connect() override {
        accepted_.reset();
        require(mosqpp::mosquittopp::connect(BROKER_HOST, port_, KEEP_ALIVE_SECONDS), "connect");
        startThread();
        accepted_.waitFor(1);
    }
    void disconnect() override { stop(); }

    TopicId addTopic(std::string const& text) override {
        topics_.push_back(text);
        return topics_.size() - 1;
    }
    void subscribe(TopicId topic) override {
        require(mosqpp::mosquittopp::subscribe(nullptr, topics_[topic].c_str(), 0), "subscribe");
    }
    void unsubscribe(TopicId topic) override {
        require(mosqpp::mosquittopp::unsubscribe(nullptr, topics_[topic].c_str()), "unsubscribe");
    }
    void publish(TopicId topic, std::string const& payload, int qos, bool retain) override {
        require(mosqpp::mosquittopp::publish(nullptr, topics_[topic].c_str(),
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

    /// The library's thread must have ended before the members that the callbacks use go.
    void stop() {
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

    int const port_;
    bool const acknowledgesPromptly_;
    std::vector<std::string> topics_;
    MessageCounter accepted_;
    MessageCounter acknowledged_;
    std::thread thread_;
    bool running_ = false;
};

std::unique_ptr<ClientLibrary> makeLibrary(char const* name, bool acknowledgesPromptly) {
    return std::make_unique<ClientLibrary>(name, [acknowledgesPromptly](int port) {
        return std::make_unique<RawClient>(port, acknowledgesPromptly);
    });
}

} // namespace

std::unique_ptr<ClientLibrary> rawLibrary(char const* name) {
    return makeLibrary(name, false);
}

std::unique_ptr<ClientLibrary> rawLibraryWithPromptAcknowledgements() {
    return makeLibrary("raw, prompt", true);
}

} // namespace bench
