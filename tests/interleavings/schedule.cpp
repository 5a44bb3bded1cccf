#include "interleavings/schedule.hpp"

#include <sstream>
#include <stdexcept>

namespace interleavings {

std::string Schedule::text() const {
    std::ostringstream out;
    char const* separator = "";
    if (pause) {
        out << "pause";
        separator = " ";
    }
    for (auto const& deviation : deviations) {
        out << separator << deviation.at << ':' << int(deviation.taken);
        separator = " ";
    }
    return out.str();
}

Schedule Schedule::fromText(std::string const& text) {
    Schedule schedule;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        if (word == "pause") {
            schedule.pause = true;
            continue;
        }
        auto const colon = word.find(':');
        if (colon == std::string::npos) {
            throw std::invalid_argument("Not a schedule: " + text);
        }
        schedule.deviations.push_back(
            {static_cast<std::uint32_t>(std::stoul(word.substr(0, colon))),
             static_cast<std::uint8_t>(std::stoul(word.substr(colon + 1)))});
    }
    return schedule;
}

Schedule Schedule::of(bool pause, std::vector<Choice> const& choices) {
    Schedule schedule;
    schedule.pause = pause;
    for (std::size_t i = 0; i < choices.size(); ++i) {
        if (choices[i].taken != 0) {
            schedule.deviations.push_back({static_cast<std::uint32_t>(i), choices[i].taken});
        }
    }
    return schedule;
}

} // namespace interleavings
