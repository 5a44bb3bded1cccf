#include "mqtt/test/scripted_service.hpp"

#include <stdexcept>
#include <utility>

namespace mqtt::test {

ScriptedService::ScriptedService(MqttClient& client, Topic const& base, Topic const& subPath,
                                 std::string const& name, zym::common::Uuid const& server,
                                 std::shared_ptr<RequestReplyData> requestData)
    : RequestReply(client, base, subPath, name) {
    Request prototype;
    prototype.topic = subPath;
    prototype.name = name;
    prototype.serverUuid = server;
    prototype.data = std::move(requestData);
    auto& endpoint = RequestReply::requests();
    MqttDataBase::Lock lock(endpoint.mutex());
    endpoint.value = prototype;
    endpoint.subscriber = this;
    endpoint.subscribe(0, lock);
    // The broker has the subscription by the end of this: it was sent before.
    auto const result = client.publishWait("scripted-service/ready", "", 1, false, 30);
    if (result != MqttClient::Error::SUCCESS) {
        throw std::runtime_error("The scripted service gets no answer from the broker");
    }
}

ScriptedService::~ScriptedService() {
    RequestReply::requests().release();
}

void ScriptedService::answer(Script script) {
    state_.change([&](State& state) { state.script = std::move(script); });
}

void ScriptedService::answer(Answer const& answer) {
    this->answer([answer](RequestReplyData const&) { return answer; });
}

void ScriptedService::ignore() {
    answer(Script());
}

void ScriptedService::hold() {
    state_.change([](State& state) { state.holds = true; });
}

void ScriptedService::release() {
    auto const held = state_.change([](State& state) {
        state.holds = false;
        return std::exchange(state.held, {});
    });
    for (Reply const& reply : held) {
        send(reply);
    }
}

std::size_t ScriptedService::requests() const {
    return state_.read([](State const& state) { return state.requests; });
}

bool ScriptedService::waitForRequests(std::size_t count) const {
    return state_.waitFor([&](State const& state) { return state.requests >= count; });
}

void ScriptedService::onMqttData(Request const& request, bool empty, int /*id*/) {
    if (empty) {
        return;
    }
    auto const script = state_.change([](State& state) {
        ++state.requests;
        return state.script;
    });
    if (!script) {
        return;
    }
    // At once, also if it is sent later: the next request is read into the same object.
    Answer const answer = script(request.data ? *request.data : *NO_DATA);
    Reply reply(request);
    reply.data = answer.data;
    reply.error = answer.error;
    bool const held = state_.change([&](State& state) {
        if (state.holds) {
            state.held.push_back(reply);
        }
        return state.holds;
    });
    if (!held) {
        send(reply);
    }
}

void ScriptedService::send(Reply const& reply) {
    auto& endpoint = replies();
    MqttDataBase::Lock lock(endpoint.mutex());
    endpoint.value = reply;
    endpoint.publish(lock);
}

} // namespace mqtt::test
