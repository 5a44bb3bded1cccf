#pragma once

namespace support {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZYM_TEST_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZYM_TEST_SANITIZED 1
#endif

/// How many times longer a test may take in this build; on ARM it runs on a small device, or under
/// emulation.
#if defined(ZYM_TEST_SANITIZED) || defined(__arm__)
inline constexpr int TIMEOUT_FACTOR = 4;
#else
inline constexpr int TIMEOUT_FACTOR = 1;
#endif

} // namespace support
