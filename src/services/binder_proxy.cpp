// The phases of a binding are the base's business; here they are started and ended, and their
// messages carried. Ending a phase calls the listener, which may destroy this object: it is the
// last thing that any operation does.

#include "mqtt/binder_proxy.hpp"

#include "common/visitors.hpp"

namespace mqtt {

using zym::common::Binder;
using zym::common::Uuid;
using ErrorCode = RequestReply::ErrorCode;

namespace {

constexpr char BIND[] = "bind";
constexpr char UNBIND[] = "unbind";
constexpr char TOPIC[] = "topic";

conv::SecondsDuration const SYNCHRONIZATION_TIMEOUT{30};

bool isBound(Binder::Error error) {
    return error == Binder::Error::SUCCESS || error == Binder::Error::ALREADY_BOUND;
}

} // namespace

BindRequestData::~BindRequestData() = default;

void BindRequestData::deserialize(zym::common::lwjson::Deserializer& in) {
    std::string text;
    zym::common::lwjson::Deserializer::extractValue(in.getMember(TOPIC), text, "");
    topic = Topic(text);
}

void BindRequestData::serialize(zym::common::lwjson::Serializer& out) const {
    out.appendKey(TOPIC);
    out.addValue(topic.text());
}

BinderMqttProxy::BinderMqttProxy(MqttClient& client, Topic const& requestTopic,
                                 Topic const& replyTopic, Uuid const& uuid, Topic const& boundTopic,
                                 zym::common::BinderProxy::Listener* listener)
    : zym::common::BinderProxy(uuid, listener),
      boundTopic_(boundTopic),
      bindClient_(client, requestTopic, replyTopic, BIND),
      unbindClient_(client, requestTopic, replyTopic, UNBIND),
      timeBase_(client, requestTopic, uuid, this),
      callers_(std::make_shared<Visitors>()),
      alive_(std::make_shared<char>()) {}

BinderMqttProxy::~BinderMqttProxy() {
    release();
}

void BinderMqttProxy::release() noexcept {
    BinderMqttProxy::terminate();
    callers_->waitForOthers();
    bindClient_.release();
    unbindClient_.release();
}

void BinderMqttProxy::terminate() {
    if (isTerminated())
        return;
    zym::common::BinderProxy::terminate();
    timeBase_.terminate();
    unbindClient_.terminate();
    bindClient_.terminate();
}

Binder::Error BinderMqttProxy::bind(Uuid const& server, conv::SecondsDuration const& timeout) {
    auto const error = startBinding(server);
    if (error != Binder::Error::SUCCESS)
        return error;
    auto const result =
        bindClient_.request(this, uuid(), server, bindRequest(), NO_DATA, nullptr, timeout);
    return result == ErrorCode::PENDING ? Binder::Error::SUCCESS
                                        : requestReplyToBinderError(result);
}

Binder::Error BinderMqttProxy::bindSync(Uuid const& server, conv::SecondsDuration const& timeout) {
    Visitors::Visit const visit(callers_);
    auto const error = startBinding(server);
    if (error != Binder::Error::SUCCESS)
        return error;
    return onBindReply(bindClient_.requestWait(uuid(), server, bindRequest(), NO_DATA, timeout),
                       true);
}

std::shared_ptr<BindRequestData> BinderMqttProxy::bindRequest() const {
    return std::make_shared<BindRequestData>(boundTopic_);
}

Binder::Error BinderMqttProxy::onBindReply(ErrorCode code, bool blocking) {
    auto const error = requestReplyToBinderError(code);
    if (!isBound(error)) {
        endBinding(error);
        return error;
    }
    auto const server = serverUuid();
    // An earlier binding, called off just as its reply came in, may have left it running.
    timeBase_.stop();
    if (!blocking) {
        timeBase_.startSync(server);
        return error;
    }
    if (!timeBase_.synchronize(server, SYNCHRONIZATION_TIMEOUT))
        return Binder::Error::NOT_SYNCHRONIZED;
    onTimeSynchronized();
    return Binder::Error::SUCCESS;
}

Binder::Error BinderMqttProxy::unbind(conv::SecondsDuration const& timeout) {
    // It calls the listener, or lets another thread do so, and goes on afterwards.
    Visitors::Visit const visit(callers_);
    auto const error = beginUnbinding();
    if (error != Binder::Error::SUCCESS)
        return error;
    auto const result =
        unbindClient_.request(this, uuid(), serverUuid(), NO_DATA, NO_DATA, nullptr, timeout);
    return result == ErrorCode::PENDING ? Binder::Error::SUCCESS
                                        : requestReplyToBinderError(result);
}

Binder::Error BinderMqttProxy::unbindSync(conv::SecondsDuration const& timeout) {
    Visitors::Visit const visit(callers_);
    auto const error = beginUnbinding();
    if (error != Binder::Error::SUCCESS)
        return error;
    return onUnbindReply(
        unbindClient_.requestWait(uuid(), serverUuid(), NO_DATA, NO_DATA, timeout));
}

/// A binding that is called off cannot complete any more.
Binder::Error BinderMqttProxy::beginUnbinding() {
    auto const error = startUnbinding();
    if (error != Binder::Error::SUCCESS)
        return error;
    // The listener hears that its binding is called off.
    std::weak_ptr<void> const alive = alive_;
    bindClient_.cancel();
    return alive.expired() ? Binder::Error::CANCELLED : Binder::Error::SUCCESS;
}

Binder::Error BinderMqttProxy::onUnbindReply(ErrorCode code) {
    auto const error = requestReplyToBinderError(code);
    if (error == Binder::Error::BUSY || error == Binder::Error::NO_SERVER) {
        endUnbinding(error);
        return error;
    }
    // Whatever else the server says, or if it does not answer: for us the binding is over.
    timeBase_.stop();
    endUnbinding(Binder::Error::SUCCESS);
    return Binder::Error::SUCCESS;
}

void BinderMqttProxy::onReply(unsigned int /*requestId*/, std::string const& name,
                              Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
                              RequestReplyData const& /*data*/, ErrorCode error) {
    if (name == bindClient_.name())
        onBindReply(error, false);
    else if (name == unbindClient_.name())
        onUnbindReply(error);
}

void BinderMqttProxy::onTimeSynchronized() {
    endBinding(Binder::Error::SUCCESS);
}

void BinderMqttProxy::forceTimeBaseSync() {
    timeBase_.forceSync();
}

bool BinderMqttProxy::isTimeBaseSynchronized() const {
    return timeBase_.isSynchronized();
}

std::uint32_t BinderMqttProxy::timeBase() const {
    return timeBase_.timeBase();
}

Binder::Error BinderMqttProxy::requestReplyToBinderError(ErrorCode code) {
    switch (code) {
    case ErrorCode::SUCCESS:
        return Binder::Error::SUCCESS;
    case ErrorCode::NO_SERVER:
    case ErrorCode::NO_LISTENER:
        return Binder::Error::NO_SERVER;
    case ErrorCode::TIMEOUT:
        return Binder::Error::TIMEOUT;
    case ErrorCode::BUSY:
        return Binder::Error::BUSY;
    case ErrorCode::CANCELLED:
        return Binder::Error::CANCELLED;
    default:
        break;
    }
    if (code < ErrorCode::APPLICATION)
        return Binder::Error::FAILED;
    auto const offset = static_cast<std::uint8_t>(ErrorCode::APPLICATION);
    return static_cast<Binder::Error>(static_cast<std::uint8_t>(code) - offset);
}

} // namespace mqtt
