// The phases of a binding are the base's business; here they are started and ended, and their
// messages carried.
//
// - `phases_->mutex` is held from the start of a phase to the sending of its request: a binding
// that
//   an unbinding does not call off any more has not begun. It is taken before the request clients'
//   and the MQTT client's locks, and never held while the listener can be called.
// - A phase is ended once, by the thread that closes it here first. The base does not tell one
// phase
//   from the next: a thread that is late there must not end a binding that has begun since.
// - Ending a phase calls the listener, which may destroy this object, and which may throw.

#include "mqtt/binder_proxy.hpp"

#include "common/no_timeout.hpp"
#include "common/user_call.hpp"
#include "common/visitors.hpp"
#include "services/binder_phases.hpp"

#include <chrono>
#include <typeinfo>
#include <utility>

namespace mqtt {

using zym::common::Binder;
using zym::common::Uuid;
using ErrorCode = RequestReply::ErrorCode;
using Lock = std::unique_lock<std::mutex>;

namespace {

constexpr char BIND[] = "bind";
constexpr char UNBIND[] = "unbind";
constexpr char TOPIC[] = "topic";

conv::SecondsDuration const SYNCHRONIZATION_TIMEOUT{30};

/// Far longer than a thread takes from closing a binding here to ending it in the base.
constexpr std::chrono::milliseconds CLOSING_TIME{100};

/// The binding for which `bindSync` says on this thread that the time is known.
struct Synchronized {
    void const* proxy = nullptr;
    unsigned int phase = 0;
};
thread_local Synchronized synchronizedHere;

bool isBound(Binder::Error error) {
    return error == Binder::Error::SUCCESS || error == Binder::Error::ALREADY_BOUND;
}

/// Not while a thread is about to end the last binding in the base, which would end the next one.
/// Without an unbinding in between the base has it under way until then.
void waitForCloser(BinderPhases& phases, Lock& lock, bool seesListener) {
    auto const isThrough = [&phases] { return phases.closer == std::thread::id(); };
    if (!phases.overtaken || phases.closer == std::this_thread::get_id()) {
        return;
    }
    if (seesListener) {
        phases.changed.wait(lock, isThrough);
    } else { // It may call the listener for long, and does no harm any more.
        phases.changed.wait_for(lock, CLOSING_TIME, isThrough);
    }
}

/// 0 when it is over.
unsigned int phaseOf(BinderPhases& phases, BinderPhases::Phase const& phase,
                     unsigned int requestId) {
    Lock const lock(phases.mutex);
    return phase.isLate(requestId) ? 0 : phase.number;
}

} // namespace

/// A phase that an operation has begun, or not.
struct BinderMqttProxy::Begun {
    Binder::Error error = Binder::Error::SUCCESS; ///< SUCCESS: it has begun
    ErrorCode code = ErrorCode::NONE;             ///< what the request client says
    unsigned int phase = 0;
    unsigned int requestId = 0;
};

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
    : BinderMqttProxy(client, requestTopic, replyTopic, uuid, boundTopic,
                      std::make_shared<BinderPhases>(listener)) {}

BinderMqttProxy::BinderMqttProxy(MqttClient& client, Topic const& requestTopic,
                                 Topic const& replyTopic, Uuid const& uuid, Topic const& boundTopic,
                                 std::shared_ptr<BinderPhases> phases)
    : zym::common::BinderProxy(uuid, phases.get()),
      boundTopic_(boundTopic),
      bindClient_(client, requestTopic, replyTopic, BIND),
      unbindClient_(client, requestTopic, replyTopic, UNBIND),
      timeBase_(client, requestTopic, uuid, this),
      callers_(std::make_shared<Visitors>()),
      phases_(std::move(phases)) {}

BinderMqttProxy::~BinderMqttProxy() {
    release();
}

void BinderMqttProxy::release() noexcept {
    BinderMqttProxy::terminate();
    // A thread that has terminated it before may still wait for the very call that we are in.
    endRequests();
    callers_->close();
    bindClient_.release();
    unbindClient_.release();
}

void BinderMqttProxy::terminate() {
    if (isTerminated()) {
        return;
    }
    auto const callers = callers_;
    {
        Visitors::Visit const visit(callers);
        if (visit.isInside()) {
            endWaits();
        }
    }
    // Waits for calls to the listener, and one of them may destroy this object.
    zym::common::BinderProxy::terminate();
    Visitors::Visit const visit(callers);
    if (visit.isInside()) {
        endRequests();
    }
}

/// The base waits for calls to the listener, and such a call may itself wait for a server.
void BinderMqttProxy::endWaits() {
    bool binding = false;
    bool unbinding = false;
    {
        Lock const lock(phases_->mutex);
        phases_->terminated = true;
        binding = phases_->binding.open && phases_->binding.awaited;
        unbinding = phases_->unbinding.open && phases_->unbinding.awaited;
    }
    if (unbinding) {
        unbindClient_.cancel();
    }
    if (binding) {
        bindClient_.cancel();
    }
}

void BinderMqttProxy::endRequests() {
    timeBase_.terminate();
    unbindClient_.terminate();
    bindClient_.terminate();
}

Binder::Error BinderMqttProxy::bind(Uuid const& server, conv::SecondsDuration const& timeout) {
    Visitors::Visit const visit(callers_);
    auto const begun = beginBinding(server, this, timeout);
    if (begun.error != Binder::Error::SUCCESS || begun.code == ErrorCode::PENDING) {
        return begun.error;
    }
    auto const error = requestReplyToBinderError(begun.code);
    closeBinding(begun.phase, error);
    return error;
}

Binder::Error BinderMqttProxy::bindSync(Uuid const& server, conv::SecondsDuration const& timeout) {
    Visitors::Visit const visit(callers_);
    auto begun = beginBinding(server, nullptr, NO_TIMEOUT);
    if (begun.error != Binder::Error::SUCCESS) {
        return begun.error;
    }
    if (begun.code == ErrorCode::PENDING) {
        begun.code = bindClient_.waitEndOfRequest(begun.requestId, timeout);
    }
    return onBindReply(begun.phase, begun.code, true);
}

BinderMqttProxy::Begun BinderMqttProxy::beginBinding(Uuid const& server,
                                                     RequestReplyClient::Listener* listener,
                                                     conv::SecondsDuration const& timeout) {
    auto const data = std::make_shared<BindRequestData>(boundTopic_);
    Begun begun;
    try {
        Lock lock(phases_->mutex);
        waitForCloser(*phases_, lock, typeid(*this) == typeid(BinderMqttProxy));
        begun.error = phases_->terminated ? Binder::Error::CANCELLED : startBinding(server);
        if (begun.error != Binder::Error::SUCCESS) {
            return begun;
        }
        begun.phase = phases_->beginBinding();
        phases_->binding.awaited = listener == nullptr;
        begun.code =
            bindClient_.request(listener, uuid(), server, data, NO_DATA, &begun.requestId, timeout);
        if (begun.code == ErrorCode::PENDING) {
            phases_->binding.ask(begun.requestId);
        }
    } catch (...) {
        closeBinding(begun.phase, Binder::Error::FAILED);
        throw;
    }
    // That of a binding which a derived class has ended by itself: the next one shall not meet it.
    if (begun.code == ErrorCode::BUSY) {
        bindClient_.cancel();
    }
    return begun;
}

Binder::Error BinderMqttProxy::onBindReply(unsigned int phase, ErrorCode code, bool blocking) {
    auto const error = requestReplyToBinderError(code);
    if (!isBound(error)) {
        closeBinding(phase, error);
        return error;
    }
    bool const done = readTime(phase, blocking);
    if (!blocking) {
        if (!done) {
            closeBinding(phase, Binder::Error::NOT_SYNCHRONIZED);
        }
        return error;
    }
    if (!done) {
        return Binder::Error::NOT_SYNCHRONIZED;
    }
    auto const before = std::exchange(synchronizedHere, {this, phase});
    callUser([this] { onTimeSynchronized(); });
    synchronizedHere = before;
    return Binder::Error::SUCCESS;
}

/// Whether the time is known, or when not blocking will be known, and the binding still open.
bool BinderMqttProxy::readTime(unsigned int phase, bool blocking) {
    {
        Lock const lock(phases_->mutex);
        if (!phases_->binding.is(phase)) {
            return false;
        }
        ++phases_->readers;
    }
    bool done = false;
    try {
        auto const server = serverUuid();
        // A derived class that has ended a binding by itself may have left it running.
        timeBase_.stop();
        done = blocking ? timeBase_.synchronize(server, SYNCHRONIZATION_TIMEOUT)
                        : timeBase_.startSync(server);
    } catch (...) {
        // No thread or no memory: as when the server cannot be asked.
    }
    Lock const lock(phases_->mutex);
    --phases_->readers;
    phases_->changed.notify_all();
    return done && phases_->binding.is(phase);
}

void BinderMqttProxy::closeBinding(unsigned int phase, Binder::Error error) {
    auto const callers = callers_;
    {
        Lock const lock(phases_->mutex);
        if (!phases_->binding.is(phase)) {
            return;
        }
        phases_->binding.open = false;
        phases_->closer = std::this_thread::get_id();
        phases_->overtaken = false;
    }
    callUser([this, error] { endBinding(error); });
    if (!callers->isClosed()) {
        phases_->bindingHasEnded();
    }
}

Binder::Error BinderMqttProxy::unbind(conv::SecondsDuration const& timeout) {
    Visitors::Visit const visit(callers_);
    auto const begun = beginUnbinding(this, timeout);
    if (begun.error != Binder::Error::SUCCESS || begun.code == ErrorCode::PENDING) {
        return begun.error;
    }
    if (begun.code == ErrorCode::SUCCESS) {
        return onUnbindReply(begun.phase, begun.code);
    }
    auto const error = requestReplyToBinderError(begun.code);
    closeUnbinding(begun.phase, error);
    return error;
}

Binder::Error BinderMqttProxy::unbindSync(conv::SecondsDuration const& timeout) {
    Visitors::Visit const visit(callers_);
    auto begun = beginUnbinding(nullptr, NO_TIMEOUT);
    if (begun.error != Binder::Error::SUCCESS) {
        return begun.error;
    }
    if (begun.code == ErrorCode::PENDING) {
        begun.code = unbindClient_.waitEndOfRequest(begun.requestId, timeout);
    }
    return onUnbindReply(begun.phase, begun.code);
}

/// A binding that is called off cannot complete any more.
BinderMqttProxy::Begun BinderMqttProxy::beginUnbinding(RequestReplyClient::Listener* listener,
                                                       conv::SecondsDuration const& timeout) {
    auto const callers = callers_;
    Begun begun;
    {
        Lock const lock(phases_->mutex);
        begun.error = phases_->terminated ? Binder::Error::CANCELLED : startUnbinding();
        if (begun.error != Binder::Error::SUCCESS) {
            return begun;
        }
        begun.phase = phases_->unbinding.begin();
        phases_->unbinding.awaited = listener == nullptr;
        phases_->calledOff = false;
    }
    // The listener hears that its binding is called off.
    bindClient_.cancel();
    if (callers->isClosed()) {
        begun.error = Binder::Error::CANCELLED;
    } else {
        sendUnbinding(begun, listener, timeout);
    }
    return begun;
}

void BinderMqttProxy::sendUnbinding(Begun& begun, RequestReplyClient::Listener* listener,
                                    conv::SecondsDuration const& timeout) {
    try {
        Lock const lock(phases_->mutex);
        if (phases_->terminated) {
            begun.code = ErrorCode::CANCELLED;
            return;
        }
        if (phases_->calledOff) {
            begun.code = ErrorCode::SUCCESS; // nobody asks the server any more
            return;
        }
        begun.code = unbindClient_.request(listener, uuid(), serverUuid(), NO_DATA, NO_DATA,
                                           &begun.requestId, timeout);
        if (begun.code == ErrorCode::PENDING) {
            phases_->unbinding.ask(begun.requestId);
        }
    } catch (...) {
        closeUnbinding(begun.phase, Binder::Error::FAILED);
        throw;
    }
}

Binder::Error BinderMqttProxy::onUnbindReply(unsigned int phase, ErrorCode code) {
    auto const error = requestReplyToBinderError(code);
    if (error == Binder::Error::BUSY || error == Binder::Error::NO_SERVER) {
        closeUnbinding(phase, error);
        return error;
    }
    // Whatever else the server says, or if it does not answer: for us the binding is over.
    completeUnbinding(phase);
    return Binder::Error::SUCCESS;
}

void BinderMqttProxy::completeUnbinding(unsigned int phase) {
    {
        Lock const lock(phases_->mutex);
        if (!phases_->unbinding.is(phase)) {
            return;
        }
        phases_->unbinding.open = false;
        phases_->binding.open = false;
        auto const closer = phases_->closer;
        phases_->overtaken = closer != std::thread::id() && closer != std::this_thread::get_id();
    }
    stopTime();
    callUser([this] { endUnbinding(Binder::Error::SUCCESS); });
}

/// For a binding that is not open any more. A thread that is on its way into the time base for it
/// has to be stopped again, when it is inside.
void BinderMqttProxy::stopTime() {
    constexpr std::chrono::milliseconds moment{1};
    bool last = false;
    while (!last) {
        {
            Lock lock(phases_->mutex);
            last =
                phases_->changed.wait_for(lock, moment, [this] { return phases_->readers == 0; });
        }
        timeBase_.stop();
    }
}

void BinderMqttProxy::closeUnbinding(unsigned int phase, Binder::Error error) {
    {
        Lock const lock(phases_->mutex);
        if (!phases_->unbinding.is(phase)) {
            return;
        }
        phases_->unbinding.open = false;
    }
    callUser([this, error] { endUnbinding(error); });
}

void BinderMqttProxy::cancelUnbinding() {
    Visitors::Visit const visit(callers_);
    {
        Lock const lock(phases_->mutex);
        phases_->calledOff = true;
    }
    unbindClient_.cancel();
}

void BinderMqttProxy::onReply(unsigned int requestId, std::string const& name,
                              Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
                              RequestReplyData const& /*data*/, ErrorCode error) {
    Visitors::Visit const visit(callers_);
    if (name == bindClient_.name()) {
        onBindReply(phaseOf(*phases_, phases_->binding, requestId), error, false);
    } else if (name == unbindClient_.name()) {
        onUnbindReply(phaseOf(*phases_, phases_->unbinding, requestId), error);
    }
}

void BinderMqttProxy::onTimeSynchronized() {
    Visitors::Visit const visit(callers_);
    // The time base does not call for a run that was stopped: it is the last binding.
    unsigned int phase = synchronizedHere.phase;
    if (synchronizedHere.proxy != this) {
        Lock const lock(phases_->mutex);
        phase = phases_->binding.number;
    }
    closeBinding(phase, Binder::Error::SUCCESS);
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
    if (code < ErrorCode::APPLICATION) {
        return Binder::Error::FAILED;
    }
    auto const offset = static_cast<std::uint8_t>(ErrorCode::APPLICATION);
    return static_cast<Binder::Error>(static_cast<std::uint8_t>(code) - offset);
}

} // namespace mqtt
