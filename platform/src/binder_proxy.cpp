#include <zym/common/binder_proxy.hpp>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace zym::common {

using Error = Binder::Error;

struct BinderProxy::Phases {
    explicit Phases(Listener* toTell) : listener(toTell) {}

    void tell(void (Listener::*event)(Error), Error error, std::unique_lock<std::mutex>& lock);
    bool othersAreInListener() const;

    std::mutex mutex;   ///< a leaf: guards all below, nothing is called under it
    Listener* listener; ///< null once terminated
    Uuid serverUuid;
    bool binding = false;
    bool unbinding = false;
    bool bound = false;
    bool terminated = false;
    std::condition_variable callEnded;

private:
    class Call;
    Call* calls = nullptr; ///< under way, the last one first
};

/// Puts a listener call on record for `terminate`, since the lock is not held during the call.
/// Needs no memory: a phase ends with its listener told.
class BinderProxy::Phases::Call {
public:
    Call(Phases& phases, std::unique_lock<std::mutex>& lock)
        : phases_(phases), next_(phases.calls) {
        phases_.calls = this;
        lock.unlock();
    }
    ~Call() {
        std::lock_guard<std::mutex> const lock(phases_.mutex);
        Call** link = &phases_.calls;
        while (*link != this) {
            link = &(*link)->next_;
        }
        *link = next_;
        phases_.callEnded.notify_all();
    }
    Call(Call const&) = delete;
    Call& operator=(Call const&) = delete;

    Call const* next() const { return next_; }
    bool isOn(std::thread::id thread) const { return thread_ == thread; }

private:
    Phases& phases_;
    std::thread::id const thread_ = std::this_thread::get_id();
    Call* next_;
};

void BinderProxy::Phases::tell(void (Listener::*event)(Error), Error error,
                               std::unique_lock<std::mutex>& lock) {
    if (listener != nullptr) {
        Listener& toTell = *listener;
        Call const call(*this, lock);
        (toTell.*event)(error);
    }
}

// A thread that is itself inside a call waits for nobody: two of them would wait for each other.
bool BinderProxy::Phases::othersAreInListener() const {
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
    phases->callEnded.wait(lock, [&phases] { return !phases->othersAreInListener(); });
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
    auto const phases = phases_; // the listener may destroy us
    std::unique_lock<std::mutex> lock(phases->mutex);
    if (!phases->binding) {
        return;
    }
    phases->binding = false;
    phases->bound = error == Error::SUCCESS || error == Error::ALREADY_BOUND;
    phases->tell(&Listener::onBound, error, lock);
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
    auto const phases = phases_; // the listener may destroy us
    std::unique_lock<std::mutex> lock(phases->mutex);
    if (!phases->unbinding) {
        return;
    }
    phases->unbinding = false;
    if (error == Error::SUCCESS) {
        phases->binding = false;
        phases->bound = false;
    }
    phases->tell(&Listener::onUnbound, error, lock);
}

} // namespace zym::common
