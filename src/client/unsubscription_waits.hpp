#pragma once

namespace mqtt {

/// The threads that wait for the acknowledgement of an unsubscription. The client's unsubscription
/// lock guards it.
///
/// Each thread notes its own acknowledgement, as the next one may come before the thread wakes up.
/// The list allocates no memory, because destructors wait too.
class UnsubscriptionWaits {
public:
    /// One wait, from the request on. Made and destroyed with the lock held.
    class Wait {
    public:
        Wait(UnsubscriptionWaits& waits, int mid) : waits_(waits), mid_(mid), next_(waits.first_) {
            waits.first_ = this;
        }
        ~Wait() {
            auto** link = &waits_.first_;
            while (*link != this) {
                link = &(*link)->next_;
            }
            *link = next_;
        }
        Wait(Wait const&) = delete;
        Wait& operator=(Wait const&) = delete;

        bool isAcknowledged() const { return isAcknowledged_; }

    private:
        friend class UnsubscriptionWaits;

        UnsubscriptionWaits& waits_;
        int const mid_;
        bool isAcknowledged_ = false;
        Wait* next_;
    };

    void acknowledge(int mid) {
        for (auto* wait = first_; wait != nullptr; wait = wait->next_) {
            wait->isAcknowledged_ = wait->isAcknowledged_ || wait->mid_ == mid;
        }
    }

private:
    Wait* first_ = nullptr;
};

} // namespace mqtt
