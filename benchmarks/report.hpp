#pragma once

#include "options.hpp"
#include "results.hpp"
#include "runner.hpp"

#include <string>
#include <vector>

namespace bench {

/// Versions, machine and method.
std::vector<std::string> commonConditions(unsigned repetitions, int cpu);
std::vector<std::string> clientConditions(Options const& options, int cpu, Contest const& contest);
/// To people and machines.
void printConditions(std::vector<std::string> const& conditions, Results& results);
/// Begins a Markdown table.
void printTableHead(std::string const& title);
void printRow(std::string const& measurement, Comparison const& row);

} // namespace bench
