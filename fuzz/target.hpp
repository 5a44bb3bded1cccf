#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

namespace fuzz {

/// The target of a program, in a file of its own: takes any bytes, and ends the program when a
/// requirement is not met.
void run(std::string_view bytes);

/// Ends the program when `holds` is false.
inline void require(bool holds, char const* requirement) {
    if (!holds) {
        std::fprintf(stderr, "not met: %s\n", requirement);
        std::abort();
    }
}

/// Whether an action throws no exception.
template <class Action>
bool succeeds(Action const& action) {
    try {
        action();
        return true;
    } catch (std::exception const&) {
        return false;
    }
}

/// Splits bytes into texts. The first byte is the one that ends each text: a line feed in the
/// seeds, which keeps them readable; another byte allows texts with line feeds.
class Lines {
public:
    explicit Lines(std::string_view bytes) : rest_(bytes) {
        if (!rest_.empty()) {
            end_ = rest_.front();
            rest_.remove_prefix(1);
        }
    }

    bool none() const { return rest_.empty(); }
    std::string_view rest() const { return rest_; }

    std::string next() {
        std::string_view const line = rest_.substr(0, rest_.find(end_));
        rest_.remove_prefix(std::min(line.size() + 1, rest_.size()));
        return std::string(line);
    }

private:
    std::string_view rest_;
    char end_ = '\n';
};

} // namespace fuzz
