#include "client/broker_library.hpp"
#include "client/engine.hpp"
#include "mqtt/client.hpp"

#include <exception>

namespace mqtt {

namespace {

// In front of the base, which must not be made of a library that we do not know.
std::string withLibraryReady(std::string const& clientId) {
    prepareBrokerLibrary();
    return clientId;
}

} // namespace

conv::SecondsDuration const MqttClient::HEART_BEAT_RATE{30};
conv::SecondsDuration const MqttClient::COMMUNICATION_DELAY{5};

MqttClient::MqttClient(zym::common::Uuid const& id, bool persistent, std::string const& name,
                       std::string const& host, int port, bool connectNow)
    : mosqpp::mosquittopp(withLibraryReady(clientId(id)).c_str(), !persistent),
      id_(id),
      persistent_(persistent),
      host_(host),
      port_(port),
      name_(name),
      comState_(conv::ComState::DISCONNECTED),
      clientId_(clientId(id)),
      stop_(false),
      paused_(false),
      engine_(std::make_unique<Engine>()) {
    // Before the worker starts: or QoS 0 acknowledgements would run inside `publish`.
    threaded_set(true);
    worker_ = std::thread([this] { loop(); });
    if (connectNow)
        connect(host, port, conv::SecondsDuration(5));
}

MqttClient::~MqttClient() {
    // The worker cannot wait for its own end: fail at once and not by hanging for ever.
    if (onWorkerThread())
        std::terminate();
    {
        std::lock_guard const lock(mainMutex_);
        for (auto const& entry : subscriptions_)
            unsubscribeAtBroker(nullptr, entry.first);
        engine_->index.clear();
        subscriptions_.clear();
    }
    {
        // Whatever the last packets lead to, nobody is told.
        std::lock_guard const lock(stateMutex_);
        listeners_.clear();
    }
    stop_ = true;
    engine_->life.askToEnd();
    wakeWorker();
    // A host that does not answer keeps the worker in `reconnect` for minutes: break it.
    constexpr std::chrono::milliseconds look{50};
    while (!engine_->life.waitForEnd(look)) {
        if (engine_->reconnecting)
            abortConnect(socket());
    }
    worker_.join();
    std::lock_guard const lock(engine_->gate.mutex);
    queue_.clear();
}

std::string MqttClient::clientId(zym::common::Uuid const& id) {
    return id.base64URL();
}

} // namespace mqtt
