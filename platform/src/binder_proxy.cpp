#include <zym/common/binder_proxy.hpp>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace zym::common {

using Error = Binder::Error;

struct BinderProxy::Phases {
    explicit Phases(Listener* listenerOfProxy) : listener(listenerOfProxy) {}

    /// Releases the lock during the call.
    void callListener(void (Listener::*event)(Error), Error error,
                      std::unique_lock<std::mutex>& lock);
    bool mustWaitForListenerCalls() const;

    std::mutex mutex;   ///< guards all below; no other lock is taken and nothing is called under it
    Listener* listener; ///< null once terminated
    Uuid serverUuid;
    bool binding = false;
    bool unbinding = false;
    bool bound = false;
    bool terminated = false;
    std::condition_variable callEnded;

private:
    class ListenerCall;
    ListenerCall* calls = nullptr; ///< under way, the newest first
};

/// Records a listener call, made without the lock, so that `terminate` can wait for its end. A
/// linked list on the stack: lack of memory cannot keep the listener from being called.
class BinderProxy::Phases::ListenerCall {
public:
    ListenerCall(Phases& phases, std::unique_lock<std::mutex>& lock)
        : phases_(phases), next_(phases.calls) {
        phases_.calls = this;
        lock.unlock();
    }
    ~ListenerCall() {
        std::lock_guard<std::mutex> const lock(phases_.mutex);
        ListenerCall** link = &phases_.calls;
        while (*link != this) {
            link = &(*link)->next_;
        }
        *link = next_;
        phases_.callEnded.notify_all();
    }
    ListenerCall(ListenerCall const&) = delete;
    ListenerCall& operator=(ListenerCall const&) = delete;

    ListenerCall const* next() const { return next_; }
    bool isOn(std::thread::id thread) const { return thread_ == thread; }

private:
    Phases& phases_;
    std::thread::id const thread_ = std::this_thread::get_id();
    ListenerCall* next_;
};

void BinderProxy::Phases::callListener(void (Listener::*event)(Error), Error error,
                                       std::unique_lock<std::mutex>& lock) {
    if (listener != nullptr) {
        Listener& called = *listener;
        ListenerCall const call(*this, lock);
        (called.*event)(error);
    }
}

// A thread inside a listener call does not wait: two such threads would wait for each other.
bool BinderProxy::Phases::mustWaitForListenerCalls() const {
    auto const self = std::this_thread::get_id();
    for (auto const* call = calls; call != nullptr; call = call->next()) {
        if (call->isOn(self)) {
            return false;
        }
    }
    return calls != nullptr;
}

BinderProxy::BinderProxy(Uuid const& uuid, Listener* listener)
    : uuid_(uuid), phases_(std::make_shared<Phases>(listener)) {}

BinderProxy::~BinderProxy() = default;

Uuid BinderProxy::serverUuid() const {
    std::lock_guard<std::mutex> const lock(phases_->mutex);
    return phases_->serverUuid;
}

bool BinderProxy::isTerminated() const {
    std::lock_guard<std::mutex> const lock(phases_->mutex);
    return phases_->terminated;
}

void BinderProxy::terminate() {
    auto const phases = phases_;
    std::unique_lock<std::mutex> lock(phases->mutex);
    phases->terminated = true;
    phases->listener = nullptr;
    phases->callEnded.wait(lock, [&phases] { return !phases->mustWaitForListenerCalls(); });
}

Error BinderProxy::startBinding(Uuid const& server) {
    std::lock_guard<std::mutex> const lock(phases_->mutex);
    if (phases_->terminated) {
        return Error::CANCELLED;
    }
    if (phases_->binding || phases_->unbinding) {
        return Error::BUSY;
    }
    if (phases_->bound) {
        return Error::ALREADY_BOUND;
    }
    phases_->binding = true;
    phases_->serverUuid = server;
    return Error::SUCCESS;
}

void BinderProxy::endBinding(Error error) {
    auto const phases = phases_; // the listener may destroy this proxy
    std::unique_lock<std::mutex> lock(phases->mutex);
    if (!phases->binding) {
        return;
    }
    phases->binding = false;
    phases->bound = error == Error::SUCCESS || error == Error::ALREADY_BOUND;
    phases->callListener(&Listener::onBound, error, lock);
}

Error BinderProxy::startUnbinding() {
    std::lock_guard<std::mutex> const lock(phases_->mutex);
    if (phases_->terminated) {
        return Error::CANCELLED;
    }
    if (phases_->unbinding) {
        return Error::BUSY;
    }
    if (!phases_->binding && !phases_->bound) {
        return Error::NOT_BOUND;
    }
    phases_->unbinding = true;
    return Error::SUCCESS;
}

void BinderProxy::endUnbinding(Error error) {
    auto const phases = phases_; // the listener may destroy this proxy
    std::unique_lock<std::mutex> lock(phases->mutex);
    if (!phases->unbinding) {
        return;
    }
    phases->unbinding = false;
    if (error == Error::SUCCESS) {
        phases->binding = false;
        phases->bound = false;
    }
    phases->callListener(&Listener::onUnbound, error, lock);
}

} // namespace zym::common
