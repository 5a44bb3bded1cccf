#pragma once

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

namespace fuzz {

/// Something that takes any bytes and ends the program when what must hold does not. Each stands
/// in a file of its own; a program has all of them, or one and the fuzzer's main program.
class Target {
public:
    using Function = void (*)(std::string_view bytes);

    Target(std::string const& name, Function function) { all().emplace(name, function); }

    static std::map<std::string, Function>& all() {
        static std::map<std::string, Function> targets;
        return targets;
    }
};

/// @param promise what is broken when it does not hold
inline void require(bool holds, char const* promise) {
    if (!holds) {
        std::fprintf(stderr, "broken: %s\n", promise);
        std::abort();
    }
}

} // namespace fuzz
