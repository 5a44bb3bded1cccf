#include "interleavings/schedule.hpp"

#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace interleavings {

std::string textOf(Schedule const& schedule) {
    std::string text;
    for (auto const& deviation : schedule) {
        text += text.empty() ? "" : " ";
        text += std::to_string(deviation.choice) + ':' + std::to_string(deviation.taken);
    }
    return text;
}

Schedule scheduleFrom(std::string const& text) {
    Schedule schedule;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        auto& deviation = schedule.emplace_back();
        if (std::sscanf(word.c_str(), "%u:%hhu", &deviation.choice, &deviation.taken) != 2) {
            throw std::invalid_argument("Not a schedule: " + text);
        }
    }
    return schedule;
}

Schedule scheduleOf(std::vector<Choice> const& choices) {
    Schedule schedule;
    for (std::size_t i = 0; i < choices.size(); ++i) {
        if (choices[i].taken != 0) {
            schedule.push_back({static_cast<std::uint32_t>(i), choices[i].taken});
        }
    }
    return schedule;
}

} // namespace interleavings
