#pragma once

namespace mqtt {

/// Calls a listener or another function of the application. What it throws is dropped here, on
/// every thread: the operation around it still has to finish its own work.
template <class Call>
void callUser(Call const& call) noexcept {
    try {
        call();
    } catch (...) {
        // There is nobody to tell.
    }
}

} // namespace mqtt
