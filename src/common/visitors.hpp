#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace mqtt {

/// The threads that are inside an object, so that its destructor can wait for them.
///
/// Shared between the object and its visits: a visit may be the one that destroys the object, and
/// then ends after it. Needs no memory: destructors use it.
class Visitors {
public:
    /// From construction to destruction the calling thread is inside.
    class Visit {
    public:
        explicit Visit(std::shared_ptr<Visitors> visitors)
            : visitors_(std::move(visitors)), thread_(std::this_thread::get_id()) {
            std::lock_guard const lock(visitors_->mutex_);
            if (visitors_->closed_) {
                return;
            }
            inside_ = true;
            next_ = visitors_->first_;
            visitors_->first_ = this;
        }
        ~Visit() {
            std::lock_guard const lock(visitors_->mutex_);
            visitors_->removeIf([this](Visit const& visit) { return &visit == this; });
        }
        Visit(Visit const&) = delete;
        Visit& operator=(Visit const&) = delete;

        /// False when it came too late: the object is gone, or goes.
        bool isInside() const { return inside_; }

    private:
        friend class Visitors;

        std::shared_ptr<Visitors> const visitors_;
        std::thread::id const thread_;
        Visit* next_ = nullptr;
        bool inside_ = false;
    };

    /// Waits until nobody is inside but the calling thread itself.
    void waitForOthers() {
        std::unique_lock lock(mutex_);
        waitForOthers(lock);
    }

    /// The same, and lets nobody in any more. A thread inside that finds it closed has itself
    /// destroyed the object.
    void close() {
        std::unique_lock lock(mutex_);
        waitForOthers(lock);
        closed_ = true;
    }
    bool isClosed() {
        std::lock_guard const lock(mutex_);
        return closed_;
    }

    /// Ends the visits of the calling thread early. For a visit that ends the object, and has to
    /// wait for those who wait for it.
    void leave() {
        std::lock_guard const lock(mutex_);
        removeIf(
            [me = std::this_thread::get_id()](Visit const& visit) { return visit.thread_ == me; });
    }

private:
    void waitForOthers(std::unique_lock<std::mutex>& lock) {
        left_.wait(lock, [this, me = std::this_thread::get_id()] {
            auto const* visit = first_;
            while (visit != nullptr && visit->thread_ == me) {
                visit = visit->next_;
            }
            return visit == nullptr;
        });
    }

    template <class Predicate>
    void removeIf(Predicate const& predicate) {
        for (auto** link = &first_; *link != nullptr;) {
            if (predicate(**link)) {
                *link = (*link)->next_;
            } else {
                link = &(*link)->next_;
            }
        }
        left_.notify_all();
    }

    std::mutex mutex_; ///< a leaf
    std::condition_variable left_;
    Visit* first_ = nullptr;
    bool closed_ = false;
};

} // namespace mqtt
