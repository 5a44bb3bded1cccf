#include "common/log.hpp"

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace mqtt {

namespace {

struct Target {
    std::shared_mutex mutex; ///< shared: while the function is called
    LogFunction function;
};

/// Never destroyed: a client that is a static object may log later.
Target& target() {
    static auto& kept = *new Target;
    return kept;
}

} // namespace

void setLogFunction(LogFunction function, LogLevel level) {
    auto& current = target();
    std::unique_lock const lock(current.mutex);
    lowestLogLevel = function ? level : LogLevel{0};
    current.function.swap(function);
}

void writeLogLine(LogLevel level, std::string line) {
    constexpr char firstPrintable = ' ';
    std::replace_if(
        line.begin(), line.end(),
        [](char c) { return static_cast<unsigned char>(c) < firstPrintable; }, '?');
    auto& current = target();
    std::shared_lock const lock(current.mutex);
    if (current.function && isLogged(level)) {
        current.function(level, line);
    }
}

} // namespace mqtt
