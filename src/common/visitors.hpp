#pragma once

#include <algorithm>
#include <condition_variable>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace mqtt {

/// Who is inside an object, so that its end can wait for them.
///
/// Shared between the object and its visits: a visit may be the one that destroys the object, and
/// then ends after it.
class Visitors {
public:
    /// From construction to destruction the calling thread is inside.
    class Visit {
    public:
        explicit Visit(std::shared_ptr<Visitors> visitors) : visitors_(std::move(visitors)) {
            std::lock_guard const lock(visitors_->mutex_);
            visitors_->inside_.emplace(this, std::this_thread::get_id());
        }
        ~Visit() {
            std::lock_guard const lock(visitors_->mutex_);
            visitors_->inside_.erase(this);
            visitors_->left_.notify_all();
        }
        Visit(Visit const&) = delete;
        Visit& operator=(Visit const&) = delete;

    private:
        std::shared_ptr<Visitors> const visitors_;
    };

    /// Waits until nobody is inside but the calling thread itself.
    void waitForOthers() {
        std::unique_lock lock(mutex_);
        auto const isMe = [me = std::this_thread::get_id()](auto& pair) {
            return pair.second == me;
        };
        left_.wait(lock, [&] { return std::all_of(inside_.begin(), inside_.end(), isMe); });
    }

    /// Ends the visits of the calling thread early. For a visit that ends the object, and has to
    /// wait for those who wait for it.
    void leave() {
        std::lock_guard const lock(mutex_);
        auto const me = std::this_thread::get_id();
        for (auto visit = inside_.begin(); visit != inside_.end();)
            visit = visit->second == me ? inside_.erase(visit) : std::next(visit);
        left_.notify_all();
    }

private:
    std::mutex mutex_; ///< a leaf
    std::condition_variable left_;
    std::map<Visit const*, std::thread::id> inside_;
};

} // namespace mqtt
