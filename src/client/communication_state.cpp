#include "client/communication_state.hpp"

#include "common/application_call.hpp"
#include "common/wait.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace mqtt {

using conv::ComState;

void CommunicationState::set(ComState state) {
    // The main lock too, and first: a listener may subscribe.
    std::lock_guard const mainLock(members_.mainMutex);
    std::lock_guard const lock(members_.stateMutex);
    if (!gate_.changeState(members_.state, state)) {
        return;
    }
    notifier_ = std::this_thread::get_id();
    listenersBeingCalled_ = members_.listeners;
    // By index, because to register a listener may move the copy.
    // NOLINTNEXTLINE(modernize-loop-convert)
    for (std::size_t i = 0; i < listenersBeingCalled_.size(); ++i) {
        callApplication([&] { listenersBeingCalled_[i]->onComStateChanged(state); },
                        members_.clientId, ": state listener");
    }
    notifier_ = std::thread::id();
    members_.changed.notify_all();
}

bool CommunicationState::startConnecting() {
    std::lock_guard const mainLock(members_.mainMutex);
    std::lock_guard const lock(members_.stateMutex);
    if (!isDisconnected()) {
        return false;
    }
    givenUp_ = false; // before the listeners are called: they may give up
    set(ComState::CONNECTING);
    return true;
}

bool CommunicationState::waitFor(ComState state, conv::SecondsDuration timeout) {
    std::unique_lock lock(members_.stateMutex);
    return waitUntil(members_.changed, lock, timeout.toTimepoint(std::chrono::steady_clock::now()),
                     [&] { return members_.state == state; });
}

void CommunicationState::add(Listener* listener) {
    std::lock_guard const lock(members_.stateMutex);
    auto& listeners = members_.listeners;
    if (std::find(listeners.begin(), listeners.end(), listener) == listeners.end()) {
        listenersBeingCalled_.reserve(listeners.size() + 1);
        listeners.push_back(listener);
    }
}

void CommunicationState::remove(Listener* listener) {
    std::lock_guard const lock(members_.stateMutex);
    auto& listeners = members_.listeners;
    auto const found = std::find(listeners.begin(), listeners.end(), listener);
    if (found != listeners.end()) {
        listeners.erase(found);
    }
}

void CommunicationState::removeAllListeners() {
    std::lock_guard const lock(members_.stateMutex);
    members_.listeners.clear();
}

} // namespace mqtt
