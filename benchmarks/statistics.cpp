#include "statistics.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace bench {

Summary summarize(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    std::size_t const middle = values.size() / 2;
    bool const odd = values.size() % 2 == 1;
    double const median = odd ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    return {median, values.front(), values.back()};
}

double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    auto const rank = std::ceil(fraction * static_cast<double>(values.size()));
    auto const index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
    return values[std::min(index, values.size() - 1)];
}

} // namespace bench
