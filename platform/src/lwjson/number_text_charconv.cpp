#include "number_text.hpp"
#include "number_way.hpp"

#ifdef ZYM_COMMON_FLOATING_CHARCONV

#include <charconv>

namespace zym::common::lwjson {

char* writeAny(char* to, double number) {
    return std::to_chars(to, to + LONGEST_NUMBER, number).ptr;
}

double readAny(std::string_view text) {
    double number = 0;
    auto const result = std::from_chars(text.data(), text.data() + text.size(), number);
    if (result.ec != std::errc()) {
        failNumberRange();
    }
    return number;
}

} // namespace zym::common::lwjson

#endif
