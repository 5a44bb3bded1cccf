#pragma once

#include "common/user_call.hpp"
#include "mqtt/log.hpp"

#include <atomic>
#include <sstream>

namespace mqtt {

/// The least important level that is logged; below all levels without a log function.
inline std::atomic<LogLevel> lowestLogLevel{LogLevel{0}};

inline bool isLogged(LogLevel level) {
    return level <= lowestLogLevel.load(std::memory_order_relaxed);
}

/// Gives a line to the log function, without the line ends that topics and other texts may have.
void writeLogLine(LogLevel level, std::string line);

/// Logs the parts in a row. Without memory the line is lost.
template <class... Parts>
void log(LogLevel level, Parts const&... parts) noexcept {
    if (!isLogged(level)) {
        return;
    }
    callUser([&] {
        std::ostringstream line;
        (line << ... << parts);
        writeLogLine(level, line.str());
    });
}

} // namespace mqtt
