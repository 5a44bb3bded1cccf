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
class PlainClient : private mosqpp::mosquittopp {
public:
    struct Message {
        std::string topic;
        std::string payload;
        int qos;
        bool retained;
    };

    explicit PlainClient(Context& context);

    /// Waits until the broker accepts.
    bool connect();
    bool isConnected() const { return connected_; }
    /// Asks the broker to publish it when this connection breaks; before `connect`.
    void setWill(std::string const& topic, std::string const& payload);

    /// Return the number of the packet, for the members below; 0 if it cannot be sent.
    int send(std::string const& topic, std::string const& payload, int qos, bool retain);
    int sendSubscribe(std::string const& pattern, int qos);
    int sendUnsubscribe(std::string const& pattern);

    /// Works until the condition holds, at most until the deadline, and ends when the connection
    /// ends or the command is interrupted.
    bool wait(Clock::time_point deadline, std::function<bool()> const& condition);
    /// Subscribes, and waits for the answer.
    /// @return the QoS that is granted; negative: none
    int subscribe(std::string const& pattern, int qos, Clock::time_point deadline);
    bool publish(std::string const& topic, std::string const& payload, int qos, bool retain,
                 Clock::time_point deadline);
    /// Waits for a message of this topic, and takes all up to it.
    bool receive(std::string const& topic, Message& message, Clock::time_point deadline);

    std::deque<Message> messages;
    std::set<int> published;           ///< acknowledged; at QoS 0 written
    std::map<int, int> granted;        ///< the QoS of each acknowledged subscription
    std::vector<int> acknowledgements; ///< of subscribing and unsubscribing, in their order

private:
    void on_connect(int code) override { connected_ = code == 0; }
    void on_disconnect(int /*code*/) override { connected_ = false; }
    void on_publish(int mid) override { published.insert(mid); }
    void on_message(mosquitto_message const* message) override;
    void on_subscribe(int mid, int count, int const* qos) override;
    void on_unsubscribe(int mid) override { acknowledgements.push_back(mid); }

    Context& context_;
    bool connected_ = false;
};
