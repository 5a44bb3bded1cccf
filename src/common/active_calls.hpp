#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace mqtt {

/// The calls under way inside an object. The object's destructor waits here for those of other
/// threads, and a call sees here whether it has itself destroyed the object.
///
/// Shared by the object and its calls: a call that destroys the object ends after it. Needs no
/// memory, because destructors use it.
class ActiveCalls {
public:
    /// The calling thread is inside the object from construction to destruction.
    class Call {
    public:
        explicit Call(std::shared_ptr<ActiveCalls> calls)
            : calls_(std::move(calls)), thread_(std::this_thread::get_id()) {
            std::lock_guard const lock(calls_->mutex_);
            next_ = std::exchange(calls_->first_, this);
        }
        ~Call() {
            std::lock_guard const lock(calls_->mutex_);
            auto** link = &calls_->first_;
            while (*link != this) {
                link = &(*link)->next_;
            }
            *link = next_;
            calls_->changed_.notify_all();
        }
        Call(Call const&) = delete;
        Call& operator=(Call const&) = delete;

        /// False when the object was closed: before this call began, or by this call's thread.
        bool isObjectAlive() const {
            std::lock_guard const lock(calls_->mutex_);
            return !calls_->closed_;
        }

    private:
        friend class ActiveCalls;

        std::shared_ptr<ActiveCalls> const calls_;
        std::thread::id const thread_;
        Call* next_ = nullptr;
        bool ended_ = false;
    };

    /// Waits until no other thread is inside, or the object is closed by one that is.
    /// @return false when the object is closed
    bool waitForOthers() {
        std::unique_lock lock(mutex_);
        waitForOthers(lock);
        return !closed_;
    }

    /// For the destructor: waits until no other thread is inside. Calls that begin later are not
    /// waited for.
    void close() {
        std::unique_lock lock(mutex_);
        waitForOthers(lock);
        closed_ = true;
        changed_.notify_all();
    }

    bool isThisThreadInside() {
        std::lock_guard const lock(mutex_);
        return hasCall(true);
    }

    /// Ends the calls of this thread before they return. For a call that ends the object and has to
    /// wait for threads that wait for this call.
    void endCallsOfThisThread() {
        std::lock_guard const lock(mutex_);
        for (auto* call = first_; call != nullptr; call = call->next_) {
            call->ended_ = call->ended_ || call->thread_ == std::this_thread::get_id();
        }
        changed_.notify_all();
    }

private:
    void waitForOthers(std::unique_lock<std::mutex>& lock) {
        changed_.wait(lock, [this] { return closed_ || !hasCall(false); });
    }

    bool hasCall(bool ofThisThread) const {
        for (auto const* call = first_; call != nullptr; call = call->next_) {
            bool const isOwn = call->thread_ == std::this_thread::get_id();
            if (!call->ended_ && isOwn == ofThisThread) {
                return true;
            }
        }
        return false;
    }

    std::mutex mutex_; ///< no other lock is taken while it is held
    std::condition_variable changed_;
    Call* first_ = nullptr;
    bool closed_ = false;
};

} // namespace mqtt
