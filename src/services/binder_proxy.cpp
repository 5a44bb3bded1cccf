// The base keeps track of the phases of a binding. This class begins and ends them, and carries
// their messages.
//
// - `phases_->mutex` is held from the begin of a phase until its request has been sent. So an
//   unbinding finds either the request of the binding that it cancels, or no binding. It is taken
//   before the request clients' and the MQTT client's locks, and is never held while the listener
//   can be called.
// - A phase is ended once, by the thread that first marks it as ended here. The base does not tell
//   one phase from the next: a thread that is late must not end a binding that has begun since.
// - Ending a phase calls the listener, which may destroy this object, and which may throw.

#include "mqtt/binder_proxy.hpp"

#include "common/active_calls.hpp"
#include "common/application_call.hpp"
#include "common/wait.hpp"
#include "services/binder_phases.hpp"

#include <chrono>
#include <typeinfo>
#include <utility>

namespace mqtt {

using zym::common::Binder;
using zym::common::Uuid;
using ErrorCode = RequestReply::ErrorCode;

namespace {

conv::SecondsDuration const SYNCHRONIZATION_TIMEOUT{30};

/// In the log. The listener may destroy the object, so nothing of that is named.
constexpr char LISTENER[] = "Listener of a binder";

/// Between two attempts to stop a thread that is about to read the time.
constexpr std::chrono::milliseconds STOP_PERIOD{1};

/// The binding whose `bindSync` calls `onTimeSynchronized` on this thread.
struct SynchronizedBinding {
    void const* proxy = nullptr;
    unsigned int phase = 0;
};
thread_local SynchronizedBinding synchronizedBinding;

} // namespace

/// The result of beginning a phase.
struct BinderMqttProxy::Begun {
    Binder::Error error = Binder::Error::SUCCESS; ///< SUCCESS: the phase has begun
    ErrorCode code = ErrorCode::NONE;             ///< of its request
    unsigned int phase = 0;
    unsigned int requestId = 0;
};

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
      bindClient_(client, requestTopic, replyTopic, "bind"),
      unbindClient_(client, requestTopic, replyTopic, "unbind"),
      timeBase_(client, requestTopic, uuid, this),
      calls_(std::make_shared<ActiveCalls>()),
      phases_(std::move(phases)) {}

BinderMqttProxy::~BinderMqttProxy() {
    release();
}

void BinderMqttProxy::release() noexcept {
    BinderMqttProxy::terminate();
    // A thread in an earlier `terminate` may still wait for the listener's call that we are in.
    endRequests();
    calls_->close();
    bindClient_.release();
    unbindClient_.release();
}

void BinderMqttProxy::terminate() {
    if (isTerminated()) {
        return;
    }
    auto const calls = calls_;
    {
        ActiveCalls::Call const call(calls);
        if (call.isObjectAlive()) {
            endWaits();
        }
    }
    // Waits for calls of the listener, and one of them may destroy this object.
    zym::common::BinderProxy::terminate();
    ActiveCalls::Call const call(calls);
    if (call.isObjectAlive()) {
        endRequests();
    }
}

/// The base waits for calls of the listener, and such a call may itself wait for a server.
void BinderMqttProxy::endWaits() {
    bool binding = false;
    bool unbinding = false;
    {
        MutexLock const lock(phases_->mutex);
        phases_->terminated = true;
        binding = phases_->binding.isWaiting();
        unbinding = phases_->unbinding.isWaiting();
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
    ActiveCalls::Call const call(calls_);
    auto const begun = beginBinding(server, this, timeout);
    if (begun.error != Binder::Error::SUCCESS || begun.code == ErrorCode::PENDING) {
        return begun.error;
    }
    auto const error = requestReplyToBinderError(begun.code);
    endBindingPhase(begun.phase, error);
    return error;
}

Binder::Error BinderMqttProxy::bindSync(Uuid const& server, conv::SecondsDuration const& timeout) {
    ActiveCalls::Call const call(calls_);
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
        MutexLock lock(phases_->mutex);
        bool const baseCallsIt = typeid(*this) == typeid(BinderMqttProxy);
        phases_->waitForEndingThread(lock, baseCallsIt);
        begun.error = phases_->terminated ? Binder::Error::CANCELLED : startBinding(server);
        if (begun.error != Binder::Error::SUCCESS) {
            return begun;
        }
        begun.phase = phases_->beginBinding(listener == nullptr);
        begun.code =
            bindClient_.request(listener, uuid(), server, data, NO_DATA, &begun.requestId, timeout);
        if (begun.code == ErrorCode::PENDING) {
            phases_->binding.setRequested(begun.requestId);
        }
    } catch (...) {
        endBindingPhase(begun.phase, Binder::Error::FAILED);
        throw;
    }
    // If a derived class ended the last binding itself, its request may still be under way.
    if (begun.code == ErrorCode::BUSY) {
        bindClient_.cancel();
    }
    return begun;
}

Binder::Error BinderMqttProxy::onBindReply(unsigned int phase, ErrorCode code, bool blocking) {
    auto const error = requestReplyToBinderError(code);
    if (error != Binder::Error::SUCCESS && error != Binder::Error::ALREADY_BOUND) {
        endBindingPhase(phase, error);
        return error;
    }
    bool const done = readTime(phase, blocking);
    if (!blocking) {
        if (!done) {
            endBindingPhase(phase, Binder::Error::NOT_SYNCHRONIZED);
        }
        return error;
    }
    if (!done) {
        return Binder::Error::NOT_SYNCHRONIZED;
    }
    auto const before = std::exchange(synchronizedBinding, {this, phase});
    callApplication([this] { onTimeSynchronized(); }, LISTENER);
    synchronizedBinding = before;
    return Binder::Error::SUCCESS;
}

/// Returns whether the time is known, or when not blocking will be known, for a binding that is
/// still under way.
bool BinderMqttProxy::readTime(unsigned int phase, bool blocking) {
    {
        MutexLock const lock(phases_->mutex);
        if (!phases_->binding.isUnderWay(phase)) {
            return false;
        }
        ++phases_->timeReaders;
    }
    bool done = false;
    try {
        auto const server = serverUuid();
        // If a derived class ended the last binding itself, the time base may still run.
        timeBase_.stop();
        done = blocking ? timeBase_.synchronize(server, SYNCHRONIZATION_TIMEOUT)
                        : timeBase_.startSync(server);
    } catch (...) {
        // No thread or no memory: as if the server could not be asked.
    }
    MutexLock const lock(phases_->mutex);
    --phases_->timeReaders;
    phases_->changed.notify_all();
    return done && phases_->binding.isUnderWay(phase);
}

void BinderMqttProxy::endBindingPhase(unsigned int phase, Binder::Error error) {
    ActiveCalls::Call const call(calls_);
    {
        MutexLock const lock(phases_->mutex);
        if (!phases_->binding.isUnderWay(phase)) {
            return;
        }
        phases_->binding.state = BinderPhases::State::ENDED;
        phases_->endingThread = std::this_thread::get_id();
        phases_->isUnboundFirst = false;
    }
    callApplication([this, error] { endBinding(error); }, LISTENER);
    if (call.isObjectAlive()) {
        phases_->setBindingEnded();
    }
}

Binder::Error BinderMqttProxy::unbind(conv::SecondsDuration const& timeout) {
    ActiveCalls::Call const call(calls_);
    auto const begun = beginUnbinding(this, timeout);
    if (begun.error != Binder::Error::SUCCESS || begun.code == ErrorCode::PENDING) {
        return begun.error;
    }
    auto const error = requestReplyToBinderError(begun.code);
    endUnbindingPhase(begun.phase, error);
    return error;
}

Binder::Error BinderMqttProxy::unbindSync(conv::SecondsDuration const& timeout) {
    ActiveCalls::Call const call(calls_);
    auto begun = beginUnbinding(nullptr, NO_TIMEOUT);
    if (begun.error != Binder::Error::SUCCESS) {
        return begun.error;
    }
    if (begun.code == ErrorCode::PENDING) {
        begun.code = unbindClient_.waitEndOfRequest(begun.requestId, timeout);
    }
    return onUnbindReply(begun.phase, begun.code);
}

/// Cancels a binding under way first: it cannot complete any more.
BinderMqttProxy::Begun BinderMqttProxy::beginUnbinding(RequestReplyClient::Listener* listener,
                                                       conv::SecondsDuration const& timeout) {
    ActiveCalls::Call const call(calls_);
    Begun begun;
    {
        MutexLock const lock(phases_->mutex);
        begun.error = phases_->terminated ? Binder::Error::CANCELLED : startUnbinding();
        if (begun.error != Binder::Error::SUCCESS) {
            return begun;
        }
        begun.phase = phases_->unbinding.begin(listener == nullptr);
        phases_->unbindingIsCancelled = false;
    }
    // The listener is called for the binding that this cancels, and may destroy this object.
    bindClient_.cancel();
    if (call.isObjectAlive()) {
        sendUnbinding(begun, listener, timeout);
    } else {
        begun.error = Binder::Error::CANCELLED;
    }
    return begun;
}

void BinderMqttProxy::sendUnbinding(Begun& begun, RequestReplyClient::Listener* listener,
                                    conv::SecondsDuration const& timeout) {
    try {
        MutexLock const lock(phases_->mutex);
        if (phases_->terminated || phases_->unbindingIsCancelled) {
            // One that is cancelled already has succeeded, without a request to the server.
            begun.code = phases_->terminated ? ErrorCode::CANCELLED : ErrorCode::SUCCESS;
            return;
        }
        begun.code = unbindClient_.request(listener, uuid(), serverUuid(), NO_DATA, NO_DATA,
                                           &begun.requestId, timeout);
        if (begun.code == ErrorCode::PENDING) {
            phases_->unbinding.setRequested(begun.requestId);
        }
    } catch (...) {
        endUnbindingPhase(begun.phase, Binder::Error::FAILED);
        throw;
    }
}

Binder::Error BinderMqttProxy::onUnbindReply(unsigned int phase, ErrorCode code) {
    auto error = requestReplyToBinderError(code);
    // After any other answer, or without one, the binding is over on this side.
    if (error != Binder::Error::BUSY && error != Binder::Error::NO_SERVER) {
        error = Binder::Error::SUCCESS;
    }
    endUnbindingPhase(phase, error);
    return error;
}

void BinderMqttProxy::endUnbindingPhase(unsigned int phase, Binder::Error error) {
    bool const isUnbound = error == Binder::Error::SUCCESS;
    {
        MutexLock const lock(phases_->mutex);
        if (!phases_->unbinding.isUnderWay(phase)) {
            return;
        }
        phases_->unbinding.state = BinderPhases::State::ENDED;
        if (isUnbound) {
            phases_->binding.state = BinderPhases::State::ENDED;
            phases_->isUnboundFirst = phases_->endingThread != std::thread::id()
                                      && phases_->endingThread != std::this_thread::get_id();
        }
    }
    if (isUnbound) {
        stopTimeBase();
    }
    callApplication([this, error] { endUnbinding(error); }, LISTENER);
}

/// After the end of a binding. A thread may be about to read the time for it: the time base is
/// stopped again when that has started.
void BinderMqttProxy::stopTimeBase() {
    bool isLast = false;
    while (!isLast) {
        {
            MutexLock lock(phases_->mutex);
            isLast = phases_->changed.wait_for(
                lock, STOP_PERIOD,
                [this]() ZYM_MQTT_REQUIRES(phases_->mutex) { return phases_->timeReaders == 0; });
        }
        timeBase_.stop();
    }
}

void BinderMqttProxy::cancelUnbinding() {
    ActiveCalls::Call const call(calls_);
    {
        MutexLock const lock(phases_->mutex);
        phases_->unbindingIsCancelled = true;
    }
    unbindClient_.cancel();
}

void BinderMqttProxy::onReply(unsigned int requestId, std::string const& name,
                              Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
                              RequestReplyData const& /*data*/, ErrorCode error) {
    ActiveCalls::Call const call(calls_);
    unsigned int binding = 0;
    unsigned int unbinding = 0;
    {
        MutexLock const lock(phases_->mutex);
        binding = phases_->binding.numberFor(requestId);
        unbinding = phases_->unbinding.numberFor(requestId);
    }
    if (name == bindClient_.name()) {
        onBindReply(binding, error, false);
    } else if (name == unbindClient_.name()) {
        onUnbindReply(unbinding, error);
    }
}

void BinderMqttProxy::onTimeSynchronized() {
    ActiveCalls::Call const call(calls_);
    // The time base does not report a stopped run, so this call is for the last binding.
    unsigned int phase = synchronizedBinding.phase;
    if (synchronizedBinding.proxy != this) {
        MutexLock const lock(phases_->mutex);
        phase = phases_->binding.number;
    }
    endBindingPhase(phase, Binder::Error::SUCCESS);
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

} // namespace mqtt
