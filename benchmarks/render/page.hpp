#pragma once

#include <string>

namespace bench::render {

constexpr char const* BEGIN_MARK = "<!-- figures: begin, by scripts/bench -->\n";
constexpr char const* END_MARK = "<!-- figures: end -->\n";

/// @return the page with other text between its marks
/// @throws std::runtime_error when it has no marks
std::string withFigures(std::string const& page, std::string const& figures);

} // namespace bench::render
