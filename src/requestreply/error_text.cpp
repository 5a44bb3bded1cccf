#include "mqtt/request_reply.hpp"

#include <ostream>

namespace mqtt {

namespace {

using ErrorCode = RequestReply::ErrorCode;

char const* text(ErrorCode error) {
    switch (error) {
    case ErrorCode::NONE:
        return "NONE";
    case ErrorCode::SUCCESS:
        return "SUCCESS";
    case ErrorCode::NO_SERVER:
        return "NO_SERVER";
    case ErrorCode::TIMEOUT:
        return "TIMEOUT";
    case ErrorCode::NO_LISTENER:
        return "NO_LISTENER";
    case ErrorCode::PENDING:
        return "PENDING";
    case ErrorCode::BUSY:
        return "BUSY";
    case ErrorCode::CANCELLED:
        return "CANCELLED";
    case ErrorCode::APPLICATION:
        return "APPLICATION";
    }
    return error > ErrorCode::APPLICATION ? "APPLICATION + " : "UNKNOWN";
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
