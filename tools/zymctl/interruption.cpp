#include "interruption.hpp"

#include "exit_code.hpp"

#include <csignal>
#include <cstdlib>

namespace {

sigset_t endingSignals() {
    sigset_t signals{};
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

} // namespace

Interruption::Interruption() {
    auto const signals = endingSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    receiver_ = std::thread([this] { receiveSignals(); });
}

Interruption::~Interruption() {
    change([this] { ending_ = true; });
    pthread_kill(receiver_.native_handle(), SIGINT);
    receiver_.join();
}

void Interruption::hold() {
    change([this] { held_ = true; });
}

bool Interruption::requested() {
    std::lock_guard<std::mutex> const lock(mutex_);
    return requested_;
}

void Interruption::request() {
    change([this] { requested_ = true; });
}

void Interruption::receiveSignals() {
    auto const signals = endingSignals();
    while (true) {
        int number = 0;
        sigwait(&signals, &number);
        bool atOnce = false;
        change([&] {
            atOnce = !held_ || requested_;
            requested_ = true;
        });
        std::lock_guard<std::mutex> const lock(mutex_);
        if (ending_) {
            return;
        }
        if (atOnce) {
            std::_Exit(static_cast<int>(ExitCode::INTERRUPTED));
        }
    }
}
