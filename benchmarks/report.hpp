#pragma once

#include "options.hpp"
#include "runner.hpp"

#include <string>
#include <vector>

namespace bench {

void printConditions(Options const& options, int cpu);
/// Begins a Markdown table.
void printTableHead(std::string const& title, char const* reference, char const* candidate);
void printRows(std::string const& measurement, std::vector<Comparison> const& comparisons);

} // namespace bench
