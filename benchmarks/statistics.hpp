#pragma once

#include <vector>

namespace bench {

struct Summary {
    double median;
    double lowest;
    double highest;
};

/// @param values at least one
Summary summarize(std::vector<double> values);

/// The smallest value that is not exceeded by the given fraction of the values.
/// @param values at least one
/// @param fraction above 0, up to 1
double percentile(std::vector<double> values, double fraction);

} // namespace bench
