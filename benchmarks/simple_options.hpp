#pragma once

#include <string>
#include <vector>

namespace bench {

/// The options of programs that have few.
struct SimpleOptions {
    bool quick = false;
    bool check = false;
    std::string results;
};

/// @throws std::invalid_argument with a text for the user
SimpleOptions parseSimpleOptions(std::vector<std::string> const& arguments);

/// Says what is wrong: for the exception under way.
/// @return what main returns
int reportError(char const* program, char const* usage);

/// Runs a program and turns what it raises into a text and an exit code.
template <class Program>
int runProgram(int argc, char** argv, char const* usage, Program program) {
    try {
        return program(parseSimpleOptions({argv + 1, argv + argc}));
    } catch (...) {
        return reportError(argv[0], usage);
    }
}

} // namespace bench
