#pragma once

#include "mqtt/test/watched.hpp"

#include <mqtt/request_reply.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace mqtt::test {

/// A server of one request/reply service that answers as the test says: with a reply, with an error
/// code, later, or not at all. As made it answers SUCCESS without payload.
///
/// All operations may be called from any thread. A script is called on the MQTT client's worker
/// thread with no lock held; when it throws, no answer is sent. It must not destroy the service.
class ScriptedService : public RequestReply, private MqttData<RequestReply::Request>::Subscriber {
public:
    struct Answer {
        std::shared_ptr<RequestReplyData> data; ///< null: no payload
        ErrorCode error = ErrorCode::SUCCESS;
    };
    /// Gets what the request's payload was read into; an empty payload when `requestData` was null.
    using Script = std::function<Answer(RequestReplyData const& request)>;

    /// Returns when the broker has the subscription.
    /// @param client connected; must outlive the service
    /// @param server nil: serves requests that name no server
    /// @param requestData what the payload of each request is read into; null: none is read
    /// @throws std::invalid_argument as `RequestReply`
    /// @throws std::runtime_error when the broker does not answer within 30 seconds
    ScriptedService(MqttClient& client, Topic const& base, Topic const& subPath,
                    std::string const& name, zym::common::Uuid const& server,
                    std::shared_ptr<RequestReplyData> requestData = nullptr);
    ~ScriptedService() override;

    /// From now on every request is answered with what the script returns.
    void answer(Script script);
    void answer(Answer const& answer);
    /// From now on requests get no answer.
    void ignore();
    /// From now on answers wait for `release`.
    void hold();
    /// Sends the answers that have waited, in order, and no longer holds.
    void release();

    /// Requests received so far, answered or not.
    std::size_t requests() const;
    /// Waits for that many, or more. @return false after 30 seconds
    bool waitForRequests(std::size_t count) const;

private:
    struct State {
        Script script = [](RequestReplyData const&) { return Answer{}; };
        bool holds = false;
        std::size_t requests = 0;
        std::vector<Reply> held;
    };

    void onMqttData(Request const& request, bool empty, int id) override;
    void send(Reply const& reply);

    Watched<State> state_;
};

} // namespace mqtt::test
