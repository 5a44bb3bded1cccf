#include <zym/common/binder_proxy.hpp>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

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
    std::vector<std::thread::id> callers; ///< threads inside a listener call
    std::condition_variable callEnded;

private:
    class Call;
};

/// Puts a listener call on record for `terminate`, since the lock is not held during the call.
class BinderProxy::Phases::Call {
public:
    Call(Phases& phases, std::unique_lock<std::mutex>& lock) : phases_(phases) {
        phases_.callers.push_back(std::this_thread::get_id());
        lock.unlock();
    }
    ~Call() {
        std::lock_guard<std::mutex> const lock(phases_.mutex);
        auto& all = phases_.callers;
        all.erase(std::find(all.begin(), all.end(), std::this_thread::get_id()));
        phases_.callEnded.notify_all();
    }
    Call(Call const&) = delete;
    Call& operator=(Call const&) = delete;

private:
    Phases& phases_;
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
    return !callers.empty() && std::find(callers.begin(), callers.end(), self) == callers.end();
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
