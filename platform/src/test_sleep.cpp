#include <zym/common/test.hpp>

#include <chrono>
#include <thread>

namespace zym::common::test {

void sleep(unsigned milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

} // namespace zym::common::test
