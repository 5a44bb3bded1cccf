#pragma once

namespace mqtt {

/// Calls a listener or another function of the application, and drops what it throws: the caller
/// still has to finish its own work.
template <class Call>
void callUser(Call const& call) noexcept {
    try {
        call();
    } catch (...) {
        // Nobody can handle it.
    }
}

} // namespace mqtt
