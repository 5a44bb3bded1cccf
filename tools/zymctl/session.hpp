#pragma once

#include <zym/common/lwjson.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

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

/// Ctrl-C and SIGTERM, and waiting for other threads until one of them comes. There is one only.
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

    /// Changes what others wait for.
    template <class Change>
    void change(Change const& makeChange) {
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            makeChange();
        }
        changed_.notify_all();
    }

    /// Waits until the condition holds, at most until the deadline, and not when interrupted.
    /// @return whether the condition holds. It is called with the lock of `change` held.
    template <class Condition>
    bool wait(Clock::time_point deadline, Condition const& condition) {
        constexpr auto STEP = std::chrono::milliseconds(20); // a signal wakes no thread
        std::unique_lock<std::mutex> lock(mutex_);
        while (!condition() && !requested() && Clock::now() < deadline) {
            changed_.wait_for(lock, STEP);
        }
        return condition();
    }
    /// Waits for the time or an interruption.
    void pause(Clock::time_point deadline) {
        wait(deadline, [] { return false; });
    }

private:
    static void onSignal(int number);

    static inline std::atomic<bool> held_{false};
    static inline std::atomic<bool> requested_{false};
    std::mutex mutex_;
    std::condition_variable changed_;
};

/// A value that one thread waits for and another one gives. Only the first counts.
template <class Value>
class Awaited {
public:
    explicit Awaited(Interruption& interruption) : interruption_(interruption) {}

    void give(Value const& value) {
        interruption_.change([&] {
            if (!value_) {
                value_ = value;
            }
        });
    }
    /// @return empty: not in time, or interrupted
    std::optional<Value> const& wait(Clock::time_point deadline) {
        interruption_.wait(deadline, [this] { return value_.has_value(); });
        return value_;
    }

private:
    Interruption& interruption_;
    std::optional<Value> value_;
};

/// A JSON object, member by member, as one line.
class JsonLine {
public:
    JsonLine& text(char const* key, std::string const& value);
    JsonLine& number(char const* key, double value);
    JsonLine& boolean(char const* key, bool value);
    /// @param json a finished value
    JsonLine& raw(char const* key, std::string const& json);
    /// A message's payload: as document, as text, or as hexadecimal digits.
    JsonLine& payload(std::string const& payload);
    std::string finish();

private:
    std::string text_;
    zym::common::lwjson::Serializer out_{text_};
};

/// Where results go. Each line is written at once. Operations may be called on any thread.
class Console {
public:
    enum class Colour : char { RED = '1', GREEN = '2', YELLOW = '3', BLUE = '4' };

    /// @param interruption is requested when nobody reads the output any more
    explicit Console(Interruption& interruption);
    ~Console() { endProgress(); }
    Console(Console const&) = delete;
    Console& operator=(Console const&) = delete;

    /// JSON in place of text, without colour and progress.
    void useJson();
    bool json() const { return json_; }
    bool isTerminal() const { return terminal_; }

    /// A result on the standard output: the text, or the row as JSON.
    void report(JsonLine& row, std::string const& text) { print(json_ ? row.finish() : text); }
    /// The same for a command that says nothing in text.
    void reportJson(JsonLine& row) {
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
    std::mutex mutex_;
    bool json_ = false;
    bool terminal_;
    bool errorTerminal_;
    bool colours_;
    bool inProgress_ = false;
};

/// A number with this many digits behind the point.
std::string fixed(double number, int digits);
