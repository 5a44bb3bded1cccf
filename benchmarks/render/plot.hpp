#pragma once

#include "result_file.hpp"

#include <ostream>

namespace bench::render {

/// Draws how much better we are, figure by figure, as an SVG image.
void writePlot(ResultFile const& results, std::ostream& out);

} // namespace bench::render
