#include "console.hpp"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <unistd.h>

Console::Console(Interruption& interruption)
    : interruption_(interruption),
      terminal_(isatty(STDOUT_FILENO) == 1),
      errorTerminal_(isatty(STDERR_FILENO) == 1),
      // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
      colours_(terminal_ && std::getenv("NO_COLOR") == nullptr) {}

void Console::useJson() {
    json_ = true;
    colours_ = false;
}

void Console::print(std::string const& line) {
    bool written = false;
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        endProgress();
        std::cout << line + '\n' << std::flush;
        written = static_cast<bool>(std::cout);
    }
    if (!written) {
        interruption_.request();
    }
}

void Console::note(std::string const& line) {
    std::lock_guard<std::mutex> const lock(mutex_);
    endProgress();
    std::cerr << line + '\n' << std::flush;
}

void Console::progress(std::string const& line) {
    std::lock_guard<std::mutex> const lock(mutex_);
    if (errorTerminal_ && !json_) {
        std::cerr << "\r\033[K" + line << std::flush;
        inProgress_ = true;
    }
}

void Console::endProgress() {
    if (inProgress_) {
        std::cerr << "\r\033[K" << std::flush;
        inProgress_ = false;
    }
}

std::string Console::paint(Colour colour, std::string const& text) const {
    return colours_ ? std::string("\033[3") + static_cast<char>(colour) + 'm' + text + "\033[0m"
                    : text;
}

std::string fixed(double number, int digits) {
    char text[400];
    std::snprintf(text, sizeof text, "%.*f", digits, number);
    return text;
}

namespace {

std::string timeText(double seconds, char const* format) {
    auto const whole = static_cast<std::time_t>(seconds);
    std::tm parts{};
    char text[64];
    if (localtime_r(&whole, &parts) == nullptr) {
        return "?";
    }
    return {text, std::strftime(text, sizeof text, format, &parts)};
}

} // namespace

std::string timeOfDay(double seconds) {
    auto const fraction = fixed(seconds - static_cast<double>(static_cast<long long>(seconds)), 3);
    return timeText(seconds, "%H:%M:%S") + (fraction[0] == '0' ? fraction.substr(1) : ".999");
}

std::string dateAndTime(double seconds) {
    return timeText(seconds, "%Y-%m-%d %H:%M:%S");
}

double secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}
