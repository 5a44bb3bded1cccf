#include "support/eventually.hpp"

#include <thread>

namespace support {

bool eventually(std::function<bool()> const& condition, std::chrono::milliseconds deadline) {
    auto const end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            // Once more: this thread may have been without a processor since the last look.
            return condition();
        }
        // What is waited for here nobody announces, a process or the kernel's tables: there is
        // nothing to be woken by, and without a pause the wait would take the processor from it.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace support
