#pragma once

#include <stdexcept>
#include <string>

/// How zymctl ends; zymctl(1) lists the same.
enum class ExitCode : int {
    DONE = 0,
    FAILED = 1,        ///< refused, an error reply, a check or a feature that fails
    USAGE = 2,         ///< wrong arguments
    NO_CONNECTION = 3, ///< to the broker
    NO_ANSWER = 4,     ///< nothing has arrived in time
    INTERRUPTED = 130  ///< before it was done
};

/// Ends a command with a message for the user.
class CommandFailed : public std::runtime_error {
public:
    CommandFailed(ExitCode code, std::string const& text) : std::runtime_error(text), code_(code) {}
    ExitCode code() const noexcept { return code_; }

private:
    ExitCode code_;
};
