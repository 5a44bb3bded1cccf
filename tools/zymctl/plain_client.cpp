#include "plain_client.hpp"

#include <cstddef>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

constexpr int KEEP_ALIVE_SECONDS = 30;
constexpr int STEP_MS = 20;

/// The broker library asks for it by a function without an object.
std::string keyPassword;

int giveKeyPassword(char* buffer, int size, int /*forWriting*/, void* /*unused*/) {
    return static_cast<int>(keyPassword.copy(buffer, static_cast<std::size_t>(size)));
}

char const* orNull(std::string const& text) {
    return text.empty() ? nullptr : text.c_str();
}

} // namespace

PlainClient::PlainClient(Context& context)
    : mosquittopp(mqtt::MqttClient::clientId(randomIdentifier()).c_str(), true), context_(context) {
    auto const options = context.settings.connectionOptions();
    if (options.credentials) {
        username_pw_set(options.credentials->userName.c_str(),
                        options.credentials->password.c_str());
    }
    if (!options.tls) {
        return;
    }
    auto const& tls = *options.tls;
    if (tls.preSharedKey) {
        tls_psk_set(tls.preSharedKey->key.c_str(), tls.preSharedKey->identity.c_str(), nullptr);
    } else {
        bool const system = tls.caFile.empty() && tls.caFolder.empty();
        keyPassword = tls.keyPassword ? tls.keyPassword() : "";
        tls_set(orNull(tls.caFile), system ? mqtt::Tls::SYSTEM_CA_FOLDER : orNull(tls.caFolder),
                orNull(tls.certificateFile), orNull(tls.keyFile), giveKeyPassword);
        tls_insecure_set(tls.insecureSkipHostNameCheck);
    }
    tls_opts_set(1, tls.minimumVersion == mqtt::Tls::Version::TLS_1_3 ? "tlsv1.3" : "tlsv1.2",
                 nullptr);
}

bool PlainClient::connect() {
    auto const& settings = context_.settings;
    if (mosquittopp::connect(settings.address().c_str(), settings.portNumber(), KEEP_ALIVE_SECONDS)
        != MOSQ_ERR_SUCCESS) {
        return false;
    }
    int const on = 1; // else a packet waits here for the acknowledgement of the one before
    setsockopt(socket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto const deadline = settings.deadline();
    while (!connected_ && Clock::now() < deadline && !context_.interruption.requested()) {
        if (loop(STEP_MS) != MOSQ_ERR_SUCCESS) {
            return false;
        }
    }
    return connected_;
}

void PlainClient::setWill(std::string const& topic, std::string const& payload) {
    will_set(topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1, false);
}

bool PlainClient::wait(Clock::time_point deadline, std::function<bool()> const& condition) {
    while (!condition()) {
        if (Clock::now() >= deadline || !connected_ || context_.interruption.requested()) {
            return false;
        }
        if (loop(STEP_MS) != MOSQ_ERR_SUCCESS) {
            connected_ = false;
        }
    }
    return true;
}

int PlainClient::subscribe(std::string const& pattern, int qos) {
    constexpr int REFUSED = 128;
    int mid = 0;
    mosquittopp::subscribe(&mid, pattern.c_str(), qos);
    bool const answered = mid != 0 && wait([&] { return granted_.count(mid) == 1; });
    return answered && granted_[mid] < REFUSED ? granted_[mid] : -1;
}

bool PlainClient::subscribeAgain(std::string const& topic) {
    std::vector<int> sent(2);
    acknowledgements_.clear();
    mosquittopp::unsubscribe(&sent[0], topic.c_str());
    mosquittopp::subscribe(&sent[1], topic.c_str());
    return wait([&] { return acknowledgements_.size() == sent.size(); })
           && acknowledgements_ == sent;
}

bool PlainClient::publish(std::string const& topic, std::string const& payload, int qos,
                          bool retain) {
    int mid = 0;
    mosquittopp::publish(&mid, topic.c_str(), static_cast<int>(payload.size()), payload.data(), qos,
                         retain);
    return mid != 0 && wait([&] { return published_.count(mid) == 1; });
}

bool PlainClient::receive(std::string const& topic, Message& message) {
    return wait([&] {
        while (!messages.empty()) {
            message = messages.front();
            messages.pop_front();
            if (message.topic == topic) {
                return true;
            }
        }
        return false;
    });
}

bool PlainClient::exchange(std::string const& topic, std::string const& payload, int qos) {
    Message message;
    return publish(topic, payload, qos, false) && receive(topic, message)
           && message.payload == payload;
}

void PlainClient::on_message(mosquitto_message const* message) {
    auto const* const payload = static_cast<char const*>(message->payload);
    messages.push_back({message->topic,
                        payload == nullptr
                            ? ""
                            : std::string(payload, static_cast<std::size_t>(message->payloadlen)),
                        message->qos, message->retain});
}

void PlainClient::on_subscribe(int mid, int count, int const* qos) {
    granted_[mid] = count > 0 ? qos[0] : -1;
    acknowledgements_.push_back(mid);
}
