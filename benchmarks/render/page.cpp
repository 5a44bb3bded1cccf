#include "page.hpp"

#include <stdexcept>

namespace bench::render {

std::string withFigures(std::string const& page, std::string const& figures) {
    auto const begin = page.find(BEGIN_MARK);
    auto const end = page.find(END_MARK);
    if (begin == std::string::npos || end == std::string::npos || end < begin) {
        throw std::runtime_error("the page has no marks for the figures");
    }
    auto const after = begin + std::string(BEGIN_MARK).size();
    return page.substr(0, after) + figures + page.substr(end);
}

} // namespace bench::render
