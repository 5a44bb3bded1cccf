#pragma once

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

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
            visitors_->inside_.push_back(std::this_thread::get_id());
        }
        ~Visit() {
            std::lock_guard const lock(visitors_->mutex_);
            auto& inside = visitors_->inside_;
            inside.erase(std::find(inside.begin(), inside.end(), std::this_thread::get_id()));
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
        auto const isMe = [me = std::this_thread::get_id()](auto id) { return id == me; };
        left_.wait(lock, [&] { return std::all_of(inside_.begin(), inside_.end(), isMe); });
    }

private:
    std::mutex mutex_; ///< a leaf
    std::condition_variable left_;
    std::vector<std::thread::id> inside_;
};

} // namespace mqtt
