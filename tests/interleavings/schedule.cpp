#include "interleavings/schedule.hpp"

#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace interleavings {

std::string textOf(Schedule const& schedule) {
    std::string text;
    for (auto const& [choice, option] : schedule) {
        text += (text.empty() ? "" : " ") + std::to_string(choice) + ':' + std::to_string(option);
    }
    return text;
}

Schedule scheduleFrom(std::string const& text) {
    Schedule schedule;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        std::size_t choice = 0;
        std::size_t option = 0;
        if (std::sscanf(word.c_str(), "%zu:%zu", &choice, &option) != 2) {
            throw std::invalid_argument("Not a schedule: " + text);
        }
        schedule[choice] = option;
    }
    return schedule;
}

Schedule scheduleOf(RunRecord const& record) {
    Schedule schedule;
    for (std::size_t choice = 0; choice < record.choiceCount; ++choice) {
        if (record.choices[choice].taken != 0) {
            schedule[choice] = record.choices[choice].taken;
        }
    }
    return schedule;
}

} // namespace interleavings
