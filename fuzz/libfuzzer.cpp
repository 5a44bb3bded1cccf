// libFuzzer's main program calls this function, which calls the only target in the program.

#include "fuzz/target.hpp"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static auto* const function = fuzz::Target::all().begin()->second;
    function({reinterpret_cast<char const*>(data), size});
    return 0;
}
