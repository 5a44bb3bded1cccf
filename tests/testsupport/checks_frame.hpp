#pragma once

#include "testsupport/output.hpp"

#include <mqtt/test_checks.hpp>

#include <gmock/gmock.h>

#include <functional>
#include <string>

inline std::string const PREFIX = "[TEST-UTILS] ";

inline std::string startOf(std::string const& subject) {
    return "\n" + PREFIX + subject + "...\n";
}
inline std::string successOf(std::string const& subject) {
    return PREFIX + subject + " - SUCCESS\n";
}
inline std::string failureOf(std::string const& subject) {
    return PREFIX + subject + " - FAILURE\n";
}
inline std::string cleanSubject(std::string const& topic) {
    return "Check topic \"" + topic + "\" has been cleaned";
}

inline std::string linksText(std::vector<std::string> const& ids) {
    std::string members;
    for (auto const& id : ids) {
        members += (members.empty() ? "" : ", ") + (R"({"@id": ")" + id + "\"}");
    }
    return "{\"members@count\": " + std::to_string(ids.size()) + ", \"members\": [" + members
           + "]}";
}

namespace mqtt {

inline bool operator==(TestCounter const& a, TestCounter const& b) {
    return a.started == b.started && a.passed == b.passed && a.failed == b.failed;
}
inline void PrintTo(TestCounter const& counter, std::ostream* out) {
    *out << counter.started << " started, " << counter.passed << " passed, " << counter.failed
         << " failed";
}

} // namespace mqtt

/// Runs a check and says whether it passed; keeps what it prints.
struct Checked {
    explicit Checked(std::function<void()> const& check) {
        Output output;
        try {
            check();
            passed = true;
        } catch (mqtt::test_error const& error) {
            message = error.what();
        }
        text = output.text();
    }

    bool passed = false;
    std::string message;
    std::string text;
};
