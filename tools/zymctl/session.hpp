#pragma once

#include <zym/common/lwjson.hpp>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

using Clock = std::chrono::steady_clock;

/// How zymctl ends; zymctl(1) lists the same.
enum class ExitCode : int {
    DONE = 0,
    FAILED = 1,        ///< refused, an error reply, a check or a feature that fails
    USAGE = 2,         ///< wrong arguments
    NO_CONNECTION = 3, ///< to the broker
    NO_ANSWER = 4,     ///< nothing has arrived in time
    INTERRUPTED = 130  ///< before it was done
};

/// Ends a command with a message for the user.
class CommandFailed : public std::runtime_error {
public:
    CommandFailed(ExitCode exitCode, std::string const& text)
        : std::runtime_error(text), code(exitCode) {}
    ExitCode const code;
};

/// Ctrl-C and SIGTERM, and waiting until one of them comes. There is one only.
///
/// Until `hold` is called a signal ends the process at once; after that the first one ends all
/// waits, and a second one the process.
class Interruption {
public:
    Interruption();

    /// From here on the command ends itself when it is interrupted.
    void hold() { held_ = true; }
    bool requested() const { return requested_; }
    /// As if a signal had come.
    void request() { requested_ = true; }

    /// Waits until the condition holds, at most until the deadline, and not when interrupted.
    /// @return whether the condition holds
    template <class Condition>
    bool wait(Clock::time_point deadline, Condition const& condition) const {
        constexpr auto STEP = std::chrono::milliseconds(5); // a signal wakes no thread
        while (!condition()) {
            if (requested() || Clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(STEP);
        }
        return true;
    }
    /// Waits for the time or an interruption.
    void pause(Clock::time_point deadline) const {
        wait(deadline, [] { return false; });
    }

private:
    static void onSignal(int number);

    static inline std::atomic<bool> held_{false};
    static inline std::atomic<bool> requested_{false};
};

/// A JSON object, member by member, as one line.
class JsonLine {
public:
    /// @param members key and value of each, in turn
    template <class... Members>
    explicit JsonLine(Members const&... members) {
        addAll(members...);
    }

    /// @param value a bool, a number or a text
    template <class Value>
    JsonLine& add(char const* key, Value const& value) {
        out_.appendKey(key);
        if constexpr (std::is_same_v<Value, bool>) {
            out_.appendValue(value ? "true" : "false");
        } else if constexpr (std::is_arithmetic_v<Value>) {
            out_.addValue(static_cast<double>(value));
        } else {
            out_.addValue(std::string(value));
        }
        return *this;
    }
    /// @param json a finished value
    JsonLine& addRaw(char const* key, std::string const& json);
    /// A message's payload: as document, as text, or as hexadecimal digits.
    JsonLine& addPayload(std::string const& payload);
    std::string finish();

private:
    void addAll() {}
    template <class Value, class... Rest>
    void addAll(char const* key, Value const& value, Rest const&... rest) {
        add(key, value);
        addAll(rest...);
    }

    std::string text_;
    zym::common::lwjson::Serializer out_{text_};
};

/// Where results go. Each line is written at once. Operations may be called on any thread.
class Console {
public:
    enum class Colour : char { RED = '1', GREEN = '2', YELLOW = '3', BLUE = '4' };

    /// @param interruption is requested when nobody reads the output any more
    /// @param json whether results are JSON in place of text, without colour and progress
    Console(Interruption& interruption, bool const& json);
    ~Console() { endProgress(); }
    Console(Console const&) = delete;
    Console& operator=(Console const&) = delete;

    bool json() const { return json_; }
    bool isTerminal() const { return terminal_; }

    /// A result on the standard output: the text, or the row as JSON.
    void report(JsonLine&& row, std::string const& text) { print(json_ ? row.finish() : text); }
    /// The same for a command that says nothing in text.
    void reportJson(JsonLine&& row) {
        if (json_) {
            print(row.finish());
        }
    }
    void print(std::string const& line);
    /// For the user, on the standard error output; not for programs.
    void note(std::string const& line);
    /// Replaces the last line of progress. Only on a terminal.
    void progress(std::string const& line);

    /// The text in a colour, on a terminal.
    std::string paint(Colour colour, std::string const& text) const;

private:
    void endProgress();

    Interruption& interruption_;
    bool const& json_;
    std::mutex mutex_;
    bool const terminal_;
    bool const errorTerminal_;
    bool const colours_;
    bool inProgress_ = false;
};

/// A number with this many digits behind the point.
std::string fixed(double number, int digits);
