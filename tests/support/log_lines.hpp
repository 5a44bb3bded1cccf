#pragma once

#include "mqtt/test/watched.hpp"

#include <mqtt/log.hpp>

#include <algorithm>
#include <string>
#include <vector>

namespace support {

/// Collects the lines of the process's log while it exists.
class LogLines {
public:
    using Lines = std::vector<std::string>;

    /// @param level the least important level that is collected
    explicit LogLines(mqtt::LogLevel level) {
        mqtt::setLogFunction(
            [this](mqtt::LogLevel /*level*/, std::string const& line) {
                lines_.change([&](Lines& all) { all.push_back(line); });
            },
            level);
    }
    ~LogLines() { mqtt::setLogFunction({}, mqtt::LogLevel::ERROR); }
    LogLines(LogLines const&) = delete;
    LogLines& operator=(LogLines const&) = delete;

    Lines copy() const { return lines_.copy(); }
    /// Waits for a line with this text in it.
    bool waitFor(std::string const& text) const {
        return lines_.waitFor([&](Lines const& all) {
            return std::any_of(all.begin(), all.end(), [&](auto const& line) {
                return line.find(text) != std::string::npos;
            });
        });
    }

private:
    mqtt::test::Watched<Lines> lines_;
};

} // namespace support
