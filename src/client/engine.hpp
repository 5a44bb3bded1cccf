#pragma once

#include "client/dispatch.hpp"
#include "client/network_turn.hpp"
#include "client/registry/registrations.hpp"
#include "client/socket/socket_tuning.hpp"
#include "mqtt/client.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace mqtt {

/// Decides whether the broker library may be handed anything.
///
/// Without a connection the library does not simply refuse: it keeps QoS 1 and 2 publications
/// for itself, and while TCP is connecting it writes packets ahead of CONNECT. Offline we
/// therefore do not call it at all. The lock is a leaf; it is held while the library is called,
/// so that nothing slips between "no connection" and "queue drained". It guards the queue too.
struct Gate {
    std::mutex mutex;
    /// From the moment the queue is drained after a connection to the loss of that connection.
    bool online = false;
    /// From the moment the library has taken a DISCONNECT packet to the end of that connection:
    /// what is handed over behind it is lost.
    bool leaving = false;
};

/// A thread that waits for the acknowledgement of its unsubscription. Each has a note of its own:
/// the next acknowledgement may come before the thread wakes up. They form a list that takes no
/// memory, as destructors wait too.
struct UnsubscriptionWait {
    int mid = -1;
    bool acknowledged = false;
    UnsubscriptionWait* next = nullptr;
};

/// The end of the worker: what cuts its sleeps short, and what its owner waits for.
class WorkerLife {
public:
    /// Worker: sleeps; returns early, with false, once the end is asked for.
    bool sleep(std::chrono::milliseconds duration) {
        std::unique_lock lock(mutex_);
        return !changed_.wait_for(lock, duration, [this] { return ending_; });
    }

    void askToEnd() {
        std::lock_guard const lock(mutex_);
        ending_ = true;
        changed_.notify_all();
    }

    /// Worker: its last act.
    void ended() {
        std::lock_guard const lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }

    bool waitForEnd(std::chrono::milliseconds duration) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, duration, [this] { return ended_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ending_ = false;
    bool ended_ = false;
};

/// Where the worker and the callers of a client meet.
///
/// Order of locks, outermost first: unsubscription, main, state, delivery, gate, dispatch. The
/// turn is taken before any of them. The broker library calls back with locks of its own held,
/// none of which it takes when we publish, subscribe or unsubscribe: so a callback may wait for
/// any of ours.
struct MqttClient::Engine {
    explicit Engine(Registrations::Registry& registry) : registrations(registry) {}

    NetworkTurn turn;
    Gate gate;
    Dispatch dispatch;
    WorkerLife life;
    SocketTuning tuning;         ///< for whoever has the turn; what is issued and answered, for all
    Registrations registrations; ///< main lock

    std::vector<Listener*> told; ///< room for all listeners while they are called; state lock

    Topic received; ///< worker: of the message under way; kept between messages for its memory

    UnsubscriptionWait* unsubscriptionWaits = nullptr; ///< the first; unsubscription lock
    bool acknowledged = false; ///< worker: the broker has consented, the rest is to be done
    std::atomic<bool> flushFirst{false};   ///< a DISCONNECT packet must leave before any reading
    std::atomic<bool> givenUp{false};      ///< nobody wants a connection until the next `connect`
    std::atomic<bool> reconnecting{false}; ///< the worker is inside `reconnect`
    std::atomic<pid_t> workerId{0};        ///< of the worker, to the kernel
    std::atomic<std::thread::id> notifier{std::thread::id()}; ///< who is calling listeners
};

} // namespace mqtt
