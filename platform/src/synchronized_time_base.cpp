#include <zym/common/synchronized_time_base.hpp>
#include <zym/common/synchronized_time_base_adaptor.hpp>
#include <zym/common/synchronized_time_base_proxy.hpp>

namespace zym::common {

SynchronizedTimeBase::~SynchronizedTimeBase() = default;

SynchronizedTimeBaseAdaptor::SynchronizedTimeBaseAdaptor() = default;
SynchronizedTimeBaseAdaptor::~SynchronizedTimeBaseAdaptor() = default;

SynchronizedTimeBaseProxy::SynchronizedTimeBaseProxy(Uuid const& uuid, Listener* listener)
    : uuid_(uuid), listener_(listener) {}

SynchronizedTimeBaseProxy::~SynchronizedTimeBaseProxy() = default;

void SynchronizedTimeBaseProxy::registerListener(Listener* listener) {
    listener_ = listener;
}

void SynchronizedTimeBaseProxy::notifyListener() {
    // Read once: another thread may set it to null between the check and the call.
    Listener* const listener = listener_;
    if (listener != nullptr) {
        listener->onTimeSynchronized();
    }
}

Uuid SynchronizedTimeBaseProxy::serverUuid() const {
    std::lock_guard<std::mutex> const lock(mutex_);
    return serverUuid_;
}

void SynchronizedTimeBaseProxy::setServerUuid(Uuid const& server) {
    std::lock_guard<std::mutex> const lock(mutex_);
    serverUuid_ = server;
}

} // namespace zym::common
