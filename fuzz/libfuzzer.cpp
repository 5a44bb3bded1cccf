// What libFuzzer's main program calls.

#include "fuzz/target.hpp"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::run({reinterpret_cast<char const*>(data), size});
    return 0;
}
