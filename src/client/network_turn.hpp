#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace mqtt {

/// Who may be inside the broker library's network functions: the worker or one caller.
///
/// The library publishes a socket before it is connected, so its loop must never run beside
/// its `connect`: it would read, close or wait on a socket that is still on its way. The worker
/// takes the turn for every network step. A caller announces itself, and the worker then stays
/// outside until the caller is done: a spinning worker cannot starve it.
class NetworkTurn {
public:
    /// For the worker: takes the turn once no caller wants it.
    void enter() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return callers_ == 0; });
        taken_ = true;
    }

    /// For the worker.
    void leave() {
        std::lock_guard const lock(mutex_);
        taken_ = false;
        if (callers_ != 0) {
            changed_.notify_all();
        }
    }

    /// For callers: takes the turn at the end of the network step under way.
    void take() {
        std::unique_lock lock(mutex_);
        ++callers_;
        changed_.wait(lock, [this] { return !taken_; });
        taken_ = true;
    }

    /// For callers: like `take`, but wakes the worker first and gives up after a while. The worker
    /// stays outside from before it is woken: it would begin the next step else, and wait in it.
    /// @param wake says whether it woke the worker: there is no turn for who did not
    template <class Wake>
    [[nodiscard]] bool takeWithin(std::chrono::milliseconds patience, Wake wake) {
        Announcement announcement(*this);
        if (!wake()) {
            return false;
        }
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, patience, [this] { return !taken_; })) {
            return false;
        }
        taken_ = true;
        announcement.keep();
        return true;
    }

    /// For callers.
    void giveBack() {
        std::lock_guard const lock(mutex_);
        taken_ = false;
        --callers_;
        changed_.notify_all();
    }

private:
    /// A caller that counts, until it goes away or has the turn.
    class Announcement {
    public:
        explicit Announcement(NetworkTurn& turn) : turn_(&turn) {
            std::lock_guard const lock(turn.mutex_);
            ++turn.callers_;
        }
        ~Announcement() {
            if (turn_ != nullptr) {
                turn_->withdraw();
            }
        }
        Announcement(Announcement const&) = delete;
        Announcement& operator=(Announcement const&) = delete;

        void keep() { turn_ = nullptr; }

    private:
        NetworkTurn* turn_;
    };

    void withdraw() {
        std::lock_guard const lock(mutex_);
        --callers_;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    int callers_ = 0; ///< waiting for the turn or having it
    bool taken_ = false;
};

} // namespace mqtt
