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
            next_ = visitors_->first_;
            visitors_->first_ = this;
        }
        ~Visit() {
            std::lock_guard const lock(visitors_->mutex_);
            visitors_->removeIf([this](Visit const& visit) { return &visit == this; });
        }
        Visit(Visit const&) = delete;
        Visit& operator=(Visit const&) = delete;

    private:
        friend class Visitors;

        std::shared_ptr<Visitors> const visitors_;
        std::thread::id const thread_;
        Visit* next_ = nullptr;
    };

    /// Waits until nobody is inside but the calling thread itself.
    void waitForOthers() {
        std::unique_lock lock(mutex_);
        left_.wait(lock, [this, me = std::this_thread::get_id()] {
            auto const* visit = first_;
            while (visit != nullptr && visit->thread_ == me)
                visit = visit->next_;
            return visit == nullptr;
        });
    }

    /// Ends the visits of the calling thread early. For a visit that ends the object, and has to
    /// wait for those who wait for it.
    void leave() {
        std::lock_guard const lock(mutex_);
        removeIf(
            [me = std::this_thread::get_id()](Visit const& visit) { return visit.thread_ == me; });
    }

private:
    template <class Predicate>
    void removeIf(Predicate const& predicate) {
        for (auto** link = &first_; *link != nullptr;) {
            if (predicate(**link))
                *link = (*link)->next_;
            else
                link = &(*link)->next_;
        }
        left_.notify_all();
    }

    std::mutex mutex_; ///< a leaf
    std::condition_variable left_;
    Visit* first_ = nullptr;
};

} // namespace mqtt
