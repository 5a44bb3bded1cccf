#pragma once

#include <zym/common/binder_proxy.hpp>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace mqtt {

/// What a binder proxy has to know of its phases beside its base. The base knows whether there is
/// one; this knows which of several, one after the other, and who is about to end it. It stands
/// between the base and the listener, and so sees when the base has ended a binding; a class that
/// is derived from the proxy gives its listener to the base itself.
struct BinderPhases final : zym::common::BinderProxy::Listener {
    struct Phase {
        unsigned int number = 0; ///< from 1 on
        bool open = false;       ///< nobody ends it yet
        bool asked = false;      ///< the request that was sent last is this phase's
        bool askedBefore = false;
        bool awaited = false;     ///< a thread waits for the reply
        unsigned int firstId = 0; ///< of all requests that were sent
        unsigned int lastId = 0;

        unsigned int begin() {
            open = true;
            asked = false;
            return ++number;
        }
        void ask(unsigned int requestId) {
            firstId = askedBefore ? firstId : requestId;
            lastId = requestId;
            asked = askedBefore = true;
        }
        bool is(unsigned int phase) const { return open && number == phase; }
        /// Whether a reply to this request belongs to an earlier phase. The identifiers grow.
        bool isLate(unsigned int requestId) const {
            bool const ours = askedBefore && requestId - firstId <= lastId - firstId;
            return ours && !(asked && requestId == lastId);
        }
    };

    explicit BinderPhases(zym::common::BinderProxy::Listener* toTell) : listener(toTell) {}

    // The listener may destroy this object.
    void onBound(zym::common::Binder::Error error) override {
        bindingHasEnded();
        if (listener != nullptr && !terminated) {
            listener->onBound(error);
        }
    }
    void onUnbound(zym::common::Binder::Error error) override {
        if (listener != nullptr && !terminated) {
            listener->onUnbound(error);
        }
    }

    /// For the thread that ends the last binding in the base.
    void bindingHasEnded() {
        std::lock_guard const lock(mutex);
        if (closer != std::this_thread::get_id()) {
            return;
        }
        closer = std::thread::id();
        changed.notify_all();
    }

    unsigned int beginBinding() {
        closer = std::thread::id();
        overtaken = false;
        return binding.begin();
    }

    zym::common::BinderProxy::Listener* const listener; ///< may be null
    std::mutex mutex;                                   ///< see binder_proxy.cpp
    Phase binding;
    Phase unbinding;
    std::atomic<bool> terminated{false}; ///< nothing begins, and nothing is told any more
    bool calledOff = false;              ///< the unbinding, before its request was sent
    int readers = 0;                     ///< threads inside the time base, for a binding
    /// Is about to end the last binding in the base.
    std::thread::id closer;
    bool overtaken = false;          ///< an unbinding has ended that binding in the base meanwhile
    std::condition_variable changed; ///< readers, closer
};

} // namespace mqtt
