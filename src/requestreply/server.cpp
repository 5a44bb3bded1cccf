#include "mqtt/request_reply.hpp"

#include "common/active_calls.hpp"
#include "requestreply/messages.hpp"

namespace mqtt {

RequestReplyServer::RequestReplyServer(MqttClient& client, Topic const& base, Topic const& subPath,
                                       std::string const& name)
    : RequestReply(client, base, subPath, name), calls_(std::make_shared<ActiveCalls>()) {}

RequestReplyServer::~RequestReplyServer() {
    release();
    calls_->close();
}

void RequestReplyServer::release() noexcept {
    unsubscribe();
    requests().release();
}

MqttClient::Error RequestReplyServer::subscribe(Listener* listener,
                                                zym::common::Uuid const& serverUuid,
                                                std::shared_ptr<RequestReplyData> requestData) {
    Request prototype;
    prototype.topic = topic();
    prototype.name = name();
    prototype.serverUuid = serverUuid;
    prototype.data = std::move(requestData);
    MqttDataBase::Lock lock(requests().mutex());
    requests().value = prototype;
    listener_ = listener;
    requests().subscriber = this;
    return requests().subscribe(0, lock);
}

MqttClient::Error RequestReplyServer::unsubscribe() {
    auto const result = requests().unsubscribe();
    listener_ = nullptr;
    return result;
}

MqttClient::Error RequestReplyServer::unsubscribeWait() {
    MqttDataBase::Lock lock(requests().mutex());
    requests().subscriber = nullptr;
    auto const result = requests().unsubscribeWait(lock);
    listener_ = nullptr;
    return result;
}

Topic RequestReplyServer::requestTopic() const {
    MqttDataBase::Lock const lock(requests().mutex());
    return requestPrefix(requests().topicBase(), requests().value);
}

void RequestReplyServer::onMqttData(Request const& request, bool empty, int /*id*/) {
    if (empty) {
        return;
    }
    Reply reply(request);
    reply.error = ErrorCode::NO_LISTENER;
    reply.data = nullptr;
    if (auto* const listener = listener_.load()) {
        ActiveCalls::Call const call(calls_);
        RequestReplyData const& data = request.data ? *request.data : *NO_DATA;
        reply.error = ErrorCode::SUCCESS;
        reply.data = listener->onRequest(request.name, request.clientUuid, request.serverUuid, data,
                                         reply.error);
        if (!call.isObjectAlive()) {
            return;
        }
    }
    MqttDataBase::Lock lock(replies().mutex());
    replies().value = reply;
    replies().publish(lock);
}

} // namespace mqtt
