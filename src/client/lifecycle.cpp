#include "client/broker_library.hpp"
#include "client/implementation.hpp"
#include "mqtt/client.hpp"

#include <mosquitto.h>

#include <exception>
#include <stdexcept>
#include <utility>

namespace mqtt {

namespace {

/// Called for an argument of the base, which must not be constructed if the library found at run
/// time is not one that we know.
std::string withLibraryReady(std::string const& clientId) {
    prepareBrokerLibrary();
    return clientId;
}

} // namespace

conv::SecondsDuration const MqttClient::HEART_BEAT_RATE{30};
conv::SecondsDuration const MqttClient::COMMUNICATION_DELAY{5};

MqttClient::Implementation::Implementation(MqttClient& client)
    : report(client.clientId_),
      endpointReport(client.clientId_),
      settings(&keyPassword),
      gate(client, client.queue_, tuning, losses, report),
      network(client, tuning, settings, report),
      state({client.mainMutex_, client.stateMutex_, client.stateChanged_, client.comState_,
             client.listeners_, client.clientId_},
            gate),
      subscriptions(client.mainMutex_, client.subscriptions_, gate),
      worker({client.stop_, client.paused_, client.worker_}, turn, network, gate, losses, state,
             subscriptions, report) {}

MqttClient::Error MqttClient::Implementation::set(ConnectionOptions const& options) {
    auto limiter = gate.limiterFor(options);
    auto const error = settings.set(options);
    if (error == Error::SUCCESS) {
        gate.setLimits(options, std::move(limiter));
        maxPayloadToReceive = options.maxPayloadToReceive;
        worker.setSleepsWhileDisconnected(options.sleepsWhileDisconnected);
    }
    return error;
}

/// The broker library passes its handle, whose user data is the object of its class.
int MqttClient::Implementation::keyPassword(char* buffer, int size, int /*writing*/, void* handle) {
    auto* const library =
        static_cast<mosqpp::mosquittopp*>(mosquitto_userdata(static_cast<mosquitto*>(handle)));
    // The base is private: a dynamic_cast does not find the way.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-static-cast-downcast)
    return static_cast<MqttClient*>(library)->impl_->settings.writeKeyPassword(buffer, size);
}

MqttClient::MqttClient(zym::common::Uuid const& id, bool persistent, std::string const& name,
                       std::string const& host, int port, bool connectNow)
    : MqttClient(id, persistent, name, host, port, connectNow, ConnectionOptions()) {}

MqttClient::MqttClient(zym::common::Uuid const& id, bool persistent, std::string const& name,
                       std::string const& host, int port, bool connectNow,
                       ConnectionOptions const& options)
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
      impl_(std::make_unique<Implementation>(*this)) {
    if (impl_->set(options) != Error::SUCCESS) {
        throw std::invalid_argument("The connection options contradict each other.");
    }
    // Before the worker starts: otherwise `publish` would call `on_publish` at QoS 0.
    threaded_set(true);
    impl_->worker.start();
    try {
        if (connectNow) {
            connect(host, port, conv::SecondsDuration(5));
        }
    } catch (...) {
        impl_->worker.end(); // the destructor is not called
        throw;
    }
}

MqttClient::~MqttClient() {
    // The worker cannot wait for its own end: fail at once, in place of waiting for ever.
    if (onWorkerThread()) {
        std::terminate();
    }
    impl_->subscriptions.removeAll();
    impl_->state.removeAllListeners(); // the end of the connection is not told to anybody
    impl_->worker.end();
    impl_->gate.dropQueue();
}

std::string MqttClient::clientId(zym::common::Uuid const& id) {
    return id.base64URL();
}

EndpointReport& MqttClient::endpointReport() {
    return impl_->endpointReport;
}

bool MqttClient::onWorkerThread() const {
    return impl_->worker.isCurrentThread();
}

} // namespace mqtt
