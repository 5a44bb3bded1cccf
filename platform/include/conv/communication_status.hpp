#pragma once

#include <conv/com_state.hpp>
#include <conv/unix_time.hpp>
#include <zym/common/export.hpp>

namespace conv {

/// State of a service's communication, and since when it has been in it.
struct ZYM_COMMON_EXPORT CommunicationStatus {
    ComState state = ComState::UNKNOWN;
    UnixTime since;
};

} // namespace conv
