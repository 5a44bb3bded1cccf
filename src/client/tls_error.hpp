#pragma once

#include "mqtt/failure.hpp"

namespace mqtt {

/// The reason behind an error text that the broker library has logged; NONE if it is not about TLS.
/// CLOSED_BEFORE_ACCEPTANCE if the connection was closed without the end of its encryption,
/// whenever that was.
///
/// A line of OpenSSL, as "error:0A000086:SSL routines::certificate verify failed", has the reason
/// as a number, which all versions have in common. The other lines are the broker library's own.
Failure::Reason tlsReason(char const* text);

} // namespace mqtt
