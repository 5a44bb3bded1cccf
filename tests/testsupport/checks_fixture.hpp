#pragma once

#include "services/link_list.hpp"
#include "support/watched.hpp"

#include <mqtt/test_checks.hpp>

#include <gmock/gmock.h>

#include <functional>
#include <iostream>
#include <ostream>
#include <streambuf>
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

namespace mqtt {

inline bool operator==(TestCounter const& a, TestCounter const& b) {
    return a.started == b.started && a.passed == b.passed && a.failed == b.failed;
}
inline void PrintTo(TestCounter const& counter, std::ostream* out) {
    *out << counter.started << " started, " << counter.passed << " passed, " << counter.failed
         << " failed";
}

} // namespace mqtt

/// Takes what is written to the standard output while it lives, from any thread.
class CapturedOutput : private std::streambuf {
public:
    CapturedOutput() : before_(std::cout.rdbuf(this)) {}
    ~CapturedOutput() override {
        std::cout.rdbuf(before_); // clears the state too
    }
    CapturedOutput(CapturedOutput const&) = delete;
    CapturedOutput& operator=(CapturedOutput const&) = delete;

    std::string text() const { return text_.copy(); }

private:
    int_type overflow(int_type character) override {
        text_.change([&](auto& text) { text += traits_type::to_char_type(character); });
        return character;
    }
    std::streamsize xsputn(char const* bytes, std::streamsize count) override {
        text_.change([&](auto& text) { text.append(bytes, static_cast<std::size_t>(count)); });
        return count;
    }

    support::Watched<std::string> text_;
    std::streambuf* before_;
};

/// Runs a check; keeps what it prints and whether it passed.
struct CheckResult {
    explicit CheckResult(std::function<void()> const& check) {
        CapturedOutput const output;
        try {
            check();
            passed = true;
        } catch (mqtt::test_error const& error) {
            message = error.what();
        }
        text = output.text();
    }

    bool passed = false;
    std::string message; ///< of the test_error
    std::string text;
};
