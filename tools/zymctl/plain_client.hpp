#pragma once

#include "settings.hpp"

#include <mqtt/mosquittopp.hpp>

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

/// A client of the broker library alone, for what our library does not show: the retained flag, the
/// broker's acknowledgements, its behaviour with every QoS. One thread: it works while it waits.
/// What waits without a deadline waits for the usual time.
class PlainClient : private mosqpp::mosquittopp {
public:
    struct Message {
        std::string topic;
        std::string payload;
        int qos;
        bool retained;
    };

    /// Waits until the broker accepts.
    /// @param will a topic, on which the broker publishes when this connection breaks; "": none
    /// @throws CommandFailed no connection
    explicit PlainClient(Context& context, std::string const& will = "");

    /// Works until the condition holds, at most until the deadline, and ends when the connection
    /// ends or the command is interrupted.
    bool wait(Clock::time_point deadline, std::function<bool()> const& condition);
    bool isConnected() const { return isOpen_; }
    /// Subscribes, and waits for the answer.
    /// @return the QoS that is granted
    /// @throws CommandFailed none
    int subscribe(std::string const& pattern, int qos = 0);
    /// Unsubscribes and subscribes without a pause, and waits for both answers.
    /// @return whether they come in this order
    bool subscribeAgain(std::string const& topic);
    bool publish(std::string const& topic, std::string const& payload, int qos, bool retain);
    /// Waits for a message of this topic, and takes all up to it.
    bool receive(std::string const& topic, Message& message);
    /// Publishes, and waits until the same comes back.
    bool exchange(std::string const& topic, std::string const& payload, int qos);

    std::deque<Message> messages;

private:
    void setSecurity(mqtt::ConnectionOptions const& options);
    bool wait(std::function<bool()> const& condition) {
        return wait(context_.settings.deadline(), condition);
    }
    void on_connect(int code) override { isAccepted_ = isOpen_ = code == 0; }
    void on_disconnect(int /*code*/) override { isOpen_ = false; }
    void on_publish(int mid) override { published_.insert(mid); }
    void on_message(mosquitto_message const* message) override;
    void on_subscribe(int mid, int count, int const* qos) override;
    void on_unsubscribe(int mid) override { acknowledgements_.push_back(mid); }

    Context& context_;
    bool isOpen_ = false;
    bool isAccepted_ = false;
    std::set<int> published_;           ///< acknowledged; at QoS 0 written
    std::map<int, int> granted_;        ///< the QoS of each acknowledged subscription
    std::vector<int> acknowledgements_; ///< of subscribing and unsubscribing, in their order
};
