#pragma once

#include "interruption.hpp"

#include <mutex>
#include <string>

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

    /// A line of the result, on the standard output.
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
/// As a local time of the day with milliseconds, or as a date and a time.
std::string timeOfDay(double secondsSince1970);
std::string dateAndTime(double secondsSince1970);
double secondsSince1970();
