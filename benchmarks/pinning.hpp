#pragma once

namespace bench {

/// Everything on one processor: spread over several, a round trip takes four times as long
/// or not, by luck. What is started later, threads and processes, inherits it.
/// @param wanted negative: the last one that is allowed
/// @return the processor
/// @throws std::system_error
int pin(int wanted);

} // namespace bench
