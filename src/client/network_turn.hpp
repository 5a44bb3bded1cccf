#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace mqtt {

/// Decides which thread may use the broker library's network functions: the worker or one caller.
///
/// The library's object has a socket before that is connected, so its `loop` must never run beside
/// its `connect`: it would read, close or wait for a socket that is not connected yet. The worker
/// takes the turn for every network step. A caller announces itself, and the worker then does not
/// take the turn until the caller has given it back: a worker whose steps follow each other without
/// a pause cannot keep a caller waiting.
class NetworkTurn {
public:
    using Clock = std::chrono::steady_clock;

    /// For the worker: takes the turn once no caller wants it.
    void enter() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return callers_ == 0; });
        taken_ = true;
        turnsBefore_ = callersTurns_;
    }

    /// For the worker.
    void leave() {
        auto const now = Clock::now();
        std::lock_guard const lock(mutex_);
        left_ = now;
        taken_ = false;
        if (callers_ != 0) {
            changed_.notify_all();
        }
    }

    /// For the worker, after `leave`: waits until a caller has had the turn since `enter`, or for
    /// `end`.
    void waitForCaller() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return isEnded_ || callersTurns_ != turnsBefore_; });
    }

    /// From here on `waitForCaller` does not wait.
    void end() {
        std::lock_guard const lock(mutex_);
        isEnded_ = true;
        changed_.notify_all();
    }

    /// When the worker has given back its last turn.
    Clock::time_point left() {
        std::lock_guard const lock(mutex_);
        return left_;
    }

    /// For callers: takes the turn at the end of the network step under way.
    void take() {
        std::unique_lock lock(mutex_);
        ++callers_;
        changed_.wait(lock, [this] { return !taken_; });
        taken_ = true;
        ++callersTurns_;
    }

    /// For callers: like `take`, but wakes the worker first, and waits no longer than the timeout.
    /// The caller is announced before the worker is woken: otherwise the worker would begin the
    /// next step, and wait in it.
    /// @param wake returns whether it woke the worker; if not, the turn is not taken
    template <class Wake>
    [[nodiscard]] bool takeWithin(std::chrono::milliseconds timeout, Wake wake) {
        Announcement announcement(*this);
        if (!wake()) {
            return false;
        }
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, timeout, [this] { return !taken_; })) {
            return false;
        }
        taken_ = true;
        ++callersTurns_;
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
    /// Counts a caller, until the caller goes away or has the turn.
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
    int callers_ = 0; ///< that wait for the turn or have it
    bool taken_ = false;
    bool isEnded_ = false;
    unsigned callersTurns_ = 0; ///< so far
    unsigned turnsBefore_ = 0;  ///< `callersTurns_` when the worker took its last turn
    Clock::time_point left_{};
};

/// A caller's turn, to the end of the scope.
class CallersTurn {
public:
    explicit CallersTurn(NetworkTurn& turn) : turn_(turn) { turn_.take(); }
    /// The turn may not come within the timeout; see `takeWithin`.
    template <class Wake>
    CallersTurn(NetworkTurn& turn, std::chrono::milliseconds timeout, Wake wake)
        : turn_(turn), isMine_(turn.takeWithin(timeout, wake)) {}
    ~CallersTurn() {
        if (isMine_) {
            turn_.giveBack();
        }
    }
    CallersTurn(CallersTurn const&) = delete;
    CallersTurn& operator=(CallersTurn const&) = delete;

    bool isMine() const { return isMine_; }

private:
    NetworkTurn& turn_;
    bool const isMine_ = true;
};

} // namespace mqtt
