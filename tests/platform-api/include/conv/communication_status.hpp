#pragma once

#include <conv/com_state.hpp>
#include <conv/unix_time.hpp>

namespace conv {

struct CommunicationStatus {
    ComState state = ComState::UNKNOWN;
    UnixTime since;
};

} // namespace conv
