#pragma once

namespace mqtt {

/// Calls a function that may throw, and drops what it throws: the caller still has to finish its
/// own work. `callApplication` is for functions of the application.
template <class Call>
void callUser(Call const& call) noexcept {
    try {
        call();
    } catch (...) {
        // Nobody can handle it.
    }
}

} // namespace mqtt
