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

PlainClient::PlainClient(Context& context, std::string const& will)
    : mosquittopp(mqtt::MqttClient::clientId(randomIdentifier()).c_str(), true), context_(context) {
    auto const& settings = context.settings;
    setSecurity(settings.connectionOptions());
    if (!will.empty()) {
        will_set(will.c_str(), 1, "x", 1, false);
    }
    isOpen_ = connect(settings.address().c_str(), settings.portNumber(), KEEP_ALIVE_SECONDS)
              == MOSQ_ERR_SUCCESS;
    int const on = 1; // else a packet waits here for the acknowledgement of the one before
    setsockopt(socket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (!wait([this] { return isAccepted_; })) {
        throw CommandFailed(ExitCode::NO_CONNECTION, "no connection to " + settings.broker());
    }
}

void PlainClient::setSecurity(mqtt::ConnectionOptions const& options) {
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

bool PlainClient::wait(Clock::time_point deadline, std::function<bool()> const& condition) {
    while (!condition()) {
        if (Clock::now() >= deadline || !isOpen_ || context_.interruption.requested()) {
            return false;
        }
        isOpen_ = loop(STEP_MS) == MOSQ_ERR_SUCCESS && isOpen_;
    }
    return true;
}

int PlainClient::subscribe(std::string const& pattern, int qos) {
    constexpr int REFUSED = 128;
    int mid = 0;
    mosquittopp::subscribe(&mid, pattern.c_str(), qos);
    if (mid == 0 || !wait([&] { return granted_.count(mid) == 1; }) || granted_[mid] >= REFUSED) {
        throw CommandFailed(ExitCode::FAILED, "the broker refuses the subscription to " + pattern);
    }
    return granted_[mid];
}

bool PlainClient::subscribeAgain(std::string const& topic) {
    std::vector<int> sent(2);
    acknowledgements_.clear();
    unsubscribe(&sent[0], topic.c_str());
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
        bool found = false;
        while (!found && !messages.empty()) {
            message = std::move(messages.front());
            messages.pop_front();
            found = message.topic == topic;
        }
        return found;
    });
}

bool PlainClient::exchange(std::string const& topic, std::string const& payload, int qos) {
    Message message;
    return publish(topic, payload, qos, false) && receive(topic, message)
           && message.payload == payload;
}

void PlainClient::on_message(mosquitto_message const* message) {
    auto const* const payload = static_cast<char const*>(message->payload);
    auto const size = static_cast<std::size_t>(message->payloadlen);
    messages.push_back({message->topic, std::string(payload, size), message->qos, message->retain});
}

void PlainClient::on_subscribe(int mid, int /*count*/, int const* qos) {
    granted_[mid] = *qos;
    acknowledgements_.push_back(mid);
}
