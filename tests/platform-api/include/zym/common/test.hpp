#pragma once

namespace zym::common::test {

void sleep(unsigned milliseconds);

} // namespace zym::common::test
