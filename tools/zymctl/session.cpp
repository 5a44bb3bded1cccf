#include "session.hpp"

#include "documents.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <unistd.h>

void Interruption::onSignal(int /*number*/) {
    if (!held_ || requested_.exchange(true)) {
        std::_Exit(static_cast<int>(ExitCode::INTERRUPTED));
    }
}

Interruption::Interruption() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

Console::Console(Interruption& interruption, bool const& json)
    : interruption_(interruption),
      json_(json),
      terminal_(isatty(STDOUT_FILENO) == 1),
      errorTerminal_(isatty(STDERR_FILENO) == 1),
      // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
      colours_(terminal_ && std::getenv("NO_COLOR") == nullptr) {}

void Console::print(std::string const& line) {
    std::lock_guard<std::mutex> const lock(mutex_);
    endProgress();
    std::cout << line + '\n' << std::flush;
    if (!std::cout) {
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
    return colours_ && !json_
               ? std::string("\033[3") + static_cast<char>(colour) + 'm' + text + "\033[0m"
               : text;
}

std::string fixed(double number, int digits) {
    char text[400];
    std::snprintf(text, sizeof text, "%.*f", digits, number);
    return text;
}

JsonLine& JsonLine::addRaw(char const* key, std::string const& json) {
    out_.appendKey(key);
    out_.appendValue(json.c_str());
    return *this;
}

JsonLine& JsonLine::addPayload(std::string const& payload) {
    if (!isText(payload)) {
        return add("payloadHex", hexadecimal(payload));
    }
    add("payload", payload);
    return isJsonObject(payload) ? addRaw("document", payload) : *this;
}

std::string JsonLine::finish() {
    out_.finalize();
    return onOneLine(text_);
}
