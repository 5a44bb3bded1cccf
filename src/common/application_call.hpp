#pragma once

#include "common/log.hpp"

#include <ostream>

namespace mqtt {

/// Writes what the exception that is being handled says.
struct CurrentException {
    friend std::ostream& operator<<(std::ostream& out, CurrentException const& /*current*/) {
        try {
            throw;
        } catch (std::exception const& error) {
            return out << error.what();
        } catch (...) {
            return out << "an exception of another type than std::exception";
        }
    }
};

/// Calls a listener, a subscriber or another function of the application. What it throws is logged
/// and dropped: the caller still has to finish its own work.
/// @param who begins the line of the log; still exists if the call destroys the calling object
template <class Call, class... Who>
void callApplication(Call const& call, Who const&... who) noexcept {
    try {
        call();
    } catch (...) {
        log(LogLevel::ERROR, who..., " has thrown: ", CurrentException());
    }
}

} // namespace mqtt
