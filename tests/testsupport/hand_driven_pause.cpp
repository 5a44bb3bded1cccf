#include "testsupport/hand_driven_pause.hpp"

#include <zym/common/test.hpp>

#include <utility>

namespace {

// All on the thread of the test.
std::vector<unsigned> thePauses;
hand_driven_pause::Hook theHook;

} // namespace

namespace hand_driven_pause {

void reset(Hook hook) {
    thePauses.clear();
    theHook = std::move(hook);
}

std::vector<unsigned> pauses() {
    return thePauses;
}

} // namespace hand_driven_pause

namespace zym::common::test {

// In the program itself, this comes before that of the shared library.
void sleep(unsigned milliseconds) {
    thePauses.push_back(milliseconds);
    if (theHook) {
        theHook(thePauses.size());
    }
}

} // namespace zym::common::test
