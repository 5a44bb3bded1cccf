#include "client/broker_library.hpp"
#include "client/engine.hpp"
#include "client/socket/connect_break.hpp"
#include "mqtt/client.hpp"

#include <csignal>
#include <exception>

#include <pthread.h>

namespace mqtt {

namespace {

// In front of the base, which must not be made of a library that we do not know.
std::string withLibraryReady(std::string const& clientId) {
    prepareBrokerLibrary();
    return clientId;
}

/// Keeps the signals of the process from the calling thread, and from those that it makes, to the
/// end of its scope. Those that a fault raises in a thread stay: their handlers run there only.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        for (int const fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
            sigdelset(&all, fault);
        }
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;

private:
    sigset_t before_{};
};

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
      engine_(std::make_unique<Engine>(subscriptions_)) {
    // Before the worker starts: or QoS 0 acknowledgements would run inside `publish`.
    threaded_set(true);
    {
        SignalsBlocked const inheritedByTheWorker;
        worker_ = std::thread([this] { loop(); });
    }
    try {
        if (connectNow) {
            connect(host, port, conv::SecondsDuration(5));
        }
    } catch (...) {
        endWorker(); // There will be no destructor.
        throw;
    }
}

MqttClient::~MqttClient() {
    // The worker cannot wait for its own end: fail at once and not by hanging for ever.
    if (onWorkerThread()) {
        std::terminate();
    }
    {
        std::lock_guard const lock(mainMutex_);
        for (auto const& entry : subscriptions_) {
            unsubscribeAtBroker(nullptr, entry.first.text().c_str());
        }
        engine_->registrations.clear();
    }
    {
        // Whatever the last packets lead to, nobody is told.
        std::lock_guard const lock(stateMutex_);
        listeners_.clear();
    }
    endWorker();
    std::lock_guard const lock(engine_->gate.mutex);
    queue_.clear();
}

void MqttClient::endWorker() noexcept {
    stop_ = true;
    engine_->life.askToEnd();
    wakeWorker();
    // A host that does not answer keeps the worker in `reconnect` for minutes: break it.
    constexpr std::chrono::milliseconds look{50};
    while (!engine_->life.waitForEnd(look)) {
        // Nothing of the application's follows on the worker: it has been told to stop.
        if (engine_->reconnecting) {
            breakConnect(engine_->workerId);
        }
    }
    worker_.join();
}

std::string MqttClient::clientId(zym::common::Uuid const& id) {
    return id.base64URL();
}

} // namespace mqtt
