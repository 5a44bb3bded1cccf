#include "mqtt/request_reply.hpp"

#include <array>
#include <ostream>
#include <string>

namespace mqtt {

namespace {

using ErrorCode = RequestReply::ErrorCode;

/// In the order of their codes.
constexpr std::array NAMES{"NONE",        "SUCCESS", "NO_SERVER", "TIMEOUT",
                           "NO_LISTENER", "PENDING", "BUSY",      "CANCELLED"};

char const* text(ErrorCode error) {
    if (error >= ErrorCode::APPLICATION) {
        return error == ErrorCode::APPLICATION ? "APPLICATION" : "APPLICATION + ";
    }
    auto const code = static_cast<std::size_t>(error);
    return code < NAMES.size() ? NAMES[code] : "UNKNOWN";
}

} // namespace

std::ostream& operator<<(std::ostream& out, RequestReply::ErrorCode const& error) {
    out << text(error);
    if (error > ErrorCode::APPLICATION) {
        out << std::to_string(static_cast<int>(error) - static_cast<int>(ErrorCode::APPLICATION));
    }
    return out;
}

} // namespace mqtt
