#pragma once

#include "result_file.hpp"

#include <ostream>
#include <string>

namespace bench::render {

/// Everything that was measured, in Markdown.
/// @param plot where the page finds the plot
void writeTables(ResultFile const& results, std::string const& plot, std::ostream& out);

/// A few digits that tell something, whatever the size.
std::string shortNumber(double value);

} // namespace bench::render
