// In the place of paho_party.cpp where Paho is not installed.

#include "party.hpp"

namespace bench {

std::unique_ptr<Party> makePahoParty() {
    return nullptr;
}

} // namespace bench
