#pragma once

#include "mqtt/export.hpp"

#include <cstdint>
#include <functional>
#include <string>

namespace mqtt {

/// How important a line of the log is. Each level includes those above it.
enum class LogLevel : std::uint8_t {
    ERROR = 1,   ///< something is lost, is not subscribed, or a listener has thrown
    WARNING = 2, ///< an attempt to connect failed, a connection is lost
    INFO = 3,    ///< connections, and the time until the next attempt
    DETAIL = 4   ///< what the broker library writes: one line for each packet; messages for nobody
};

/// Gets one line for each event: text without a line end. It begins with the MQTT identifier of the
/// client; what a listener of a request or a service has thrown begins with what kind of listener
/// that was. A line never contains a password, a key or a payload, unless an exception of the
/// application has it in its text.
///
/// Called on any thread, also on several at a time, with locks of the client held: it must not call
/// this library, nor wait for a thread that does. What it throws is dropped.
using LogFunction = std::function<void(LogLevel level, std::string const& line)>;

/// Sets the log function of the process; an empty one ends the log. There is none at first, and
/// then no text is made. When this returns, the last function is not being called and will not be.
/// May be called on any thread, but not inside a log function.
/// @param level the least important level that is logged
/// @throws std::bad_alloc nothing has changed then
ZYM_MQTT_EXPORT void setLogFunction(LogFunction function, LogLevel level);

} // namespace mqtt
