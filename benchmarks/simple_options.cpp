#include "simple_options.hpp"

#include <cstddef>
#include <cstdio>
#include <exception>
#include <stdexcept>

namespace bench {

SimpleOptions parseSimpleOptions(std::vector<std::string> const& arguments) {
    SimpleOptions options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--quick") {
            options.quick = true;
        } else if (arguments[i] == "--check") {
            options.check = true;
        } else if (arguments[i] == "--results" && i + 1 < arguments.size()) {
            options.results = arguments[++i];
        } else {
            throw std::invalid_argument("unknown option " + arguments[i]);
        }
    }
    return options;
}

int reportError(char const* program, char const* usage) {
    try {
        throw;
    } catch (std::invalid_argument const& error) {
        std::fprintf(stderr, "%s\n\n%s", error.what(), usage);
        return 2;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s: %s\n", program, error.what());
        return 1;
    }
}

} // namespace bench
