#pragma once

#include "chaos/party.hpp"
#include "chaos/place.hpp"

#include "support/watched.hpp"

#include <mqtt/client.hpp>
#include <mqtt/request_reply.hpp>

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>

namespace chaos {

/// What requests carry, and replies carry back.
class NumberData final : public mqtt::RequestReplyData {
public:
    explicit NumberData(std::uint32_t initial = 0) : number(initial) {}

    void deserialize(zym::common::lwjson::Deserializer& in) override;
    void serialize(zym::common::lwjson::Serializer& out) const override;

    std::uint32_t number;
};

/// The moment when a request ends, and that it does not end again. Lives longer than its request.
class Ending final : public mqtt::RequestReplyClient::Listener {
public:
    explicit Ending(std::shared_ptr<NumberData> data) : data_(std::move(data)) {}

    struct State {
        int times = 0;
        mqtt::RequestReply::ErrorCode error = mqtt::RequestReply::ErrorCode::NONE;
        std::uint32_t number = 0; ///< in the reply
    };

    bool wait(std::chrono::milliseconds deadline) const;
    State state() const { return state_.copy(); }

private:
    void onReply(unsigned int requestId, std::string const& name,
                 zym::common::Uuid const& clientUuid, zym::common::Uuid const& serverUuid,
                 mqtt::RequestReplyData const& data, mqtt::RequestReply::ErrorCode error) override;

    std::shared_ptr<NumberData> const data_;
    support::Watched<State> state_;
};

/// Answers with the number it was asked, and notices when a request is carried out twice.
class Answerer final : private mqtt::RequestReplyServer::Listener {
public:
    Answerer(Place& place, std::string const& topic);
    ~Answerer();

private:
    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& name, zym::common::Uuid const& clientUuid,
              zym::common::Uuid const& serverUuid, mqtt::RequestReplyData const& requestData,
              mqtt::RequestReply::ErrorCode& error) override;

    Place& place_;
    std::string const topic_;
    std::deque<std::uint32_t> recent_; ///< on the client's thread
    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::RequestReplyServer> server_;
};

/// Asks one thing after the other: waiting, with a listener, calling off.
class Asker final : public Party {
public:
    Asker(Place& place, std::string const& name, std::string const& topic, bool persistent,
          std::uint32_t firstNumber);
    ~Asker() override;

    void prove() override;

private:
    using ErrorCode = mqtt::RequestReply::ErrorCode;

    void step() override;
    ErrorCode askAndWait();
    void askWithListener();
    void judge(Ending const& ending, std::uint32_t number);
    void forgetOldEndings(std::size_t kept);
    void judgeReply(ErrorCode error, std::uint32_t asked, std::uint32_t answered);

    Place& place_;
    zym::common::Uuid const id_;
    std::uint32_t number_;
    std::deque<std::unique_ptr<Ending>> endings_;
    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::RequestReplyClient> requests_;
};

} // namespace chaos
