#pragma once

#include "mqtt/mutex.hpp"

#include <zym/common/binder_proxy.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <optional>
#include <thread>

namespace mqtt {

/// What a binder proxy has to know about its phases beside its base. The base knows whether a
/// binding or an unbinding is under way; this knows which one, and which thread ends it. It
/// receives the base's calls for the listener, and so knows when the base has ended a binding; but
/// a class that is derived from the proxy gives its listener to the base itself.
struct BinderPhases final : zym::common::BinderProxy::Listener {
    /// ENDED becomes BEGUN with the phase in the base, BEGUN becomes REQUESTED when the request has
    /// been sent, and both become ENDED by the one thread that then ends the phase in the base.
    enum class State { ENDED, BEGUN, REQUESTED };

    /// The last binding or unbinding.
    struct Phase {
        unsigned int number = 0; ///< from 1 on
        State state = State::ENDED;
        bool isWaitedFor = false; ///< a thread waits for the reply
        std::optional<unsigned int> firstRequestId;
        unsigned int lastRequestId = 0;

        unsigned int begin(bool waitsForReply) {
            state = State::BEGUN;
            isWaitedFor = waitsForReply;
            return ++number;
        }
        void setRequested(unsigned int requestId) {
            state = State::REQUESTED;
            firstRequestId = firstRequestId.value_or(requestId);
            lastRequestId = requestId;
        }
        bool isUnderWay(unsigned int phase) const {
            return state != State::ENDED && number == phase;
        }
        bool isWaiting() const { return state != State::ENDED && isWaitedFor; }
        /// The number for a reply to this request, 0 when that belongs to an earlier phase. The
        /// identifiers grow from request to request.
        unsigned int numberFor(unsigned int requestId) const {
            bool const isOwn =
                firstRequestId && requestId - *firstRequestId <= lastRequestId - *firstRequestId;
            bool const isCurrent = state == State::REQUESTED && requestId == lastRequestId;
            return isOwn && !isCurrent ? 0 : number;
        }
    };

    explicit BinderPhases(zym::common::BinderProxy::Listener* applicationListener)
        : listener(applicationListener) {}

    // The listener may destroy this object.
    void onBound(zym::common::Binder::Error error) override {
        setBindingEnded();
        if (listener != nullptr && !terminated) {
            listener->onBound(error);
        }
    }
    void onUnbound(zym::common::Binder::Error error) override {
        if (listener != nullptr && !terminated) {
            listener->onUnbound(error);
        }
    }

    /// For a new binding: waits for a thread that is about to end the last one in the base, and
    /// would end the new one instead. Without an unbinding in between the base refuses the new one.
    /// @param baseCallsIt whether the base calls this listener when the binding has ended
    void waitForEndingThread(MutexLock& lock, bool baseCallsIt) ZYM_MQTT_REQUIRES(mutex) {
        // Far longer than a thread takes from marking a binding as ended to ending it in the base.
        constexpr std::chrono::milliseconds endingTime{100};
        if (!isUnboundFirst || endingThread == std::this_thread::get_id()) {
            return;
        }
        auto const hasEnded = [this]() ZYM_MQTT_REQUIRES(mutex) {
            return endingThread == std::thread::id();
        };
        if (baseCallsIt) {
            changed.wait(lock, hasEnded);
        } else { // It may be in a long call of another listener, and is harmless then.
            changed.wait_for(lock, endingTime, hasEnded);
        }
    }

    unsigned int beginBinding(bool waitsForReply) ZYM_MQTT_REQUIRES(mutex) {
        endingThread = std::thread::id();
        isUnboundFirst = false;
        return binding.begin(waitsForReply);
    }

    /// The calling thread has ended the last binding in the base.
    void setBindingEnded() {
        MutexLock const lock(mutex);
        if (endingThread == std::this_thread::get_id()) {
            endingThread = std::thread::id();
            changed.notify_all();
        }
    }

    zym::common::BinderProxy::Listener* const listener; ///< may be null
    std::atomic<bool> terminated{false}; ///< no phase begins, and the listener is not called
    Mutex mutex;                         ///< see binder_proxy.cpp
    Phase binding ZYM_MQTT_GUARDED_BY(mutex);
    Phase unbinding ZYM_MQTT_GUARDED_BY(mutex);
    /// `cancelUnbinding` was called, maybe before the request was sent.
    bool unbindingIsCancelled ZYM_MQTT_GUARDED_BY(mutex) = false;
    /// Threads that read the time for a binding.
    int timeReaders ZYM_MQTT_GUARDED_BY(mutex) = 0;
    /// The thread that is about to end the last binding in the base.
    std::thread::id endingThread ZYM_MQTT_GUARDED_BY(mutex);
    /// An unbinding has ended that binding in the base before `endingThread` did.
    bool isUnboundFirst ZYM_MQTT_GUARDED_BY(mutex) = false;
    std::condition_variable changed; ///< `timeReaders`, `endingThread`
};

} // namespace mqtt
