#pragma once

#include "result_file.hpp"

#include <string>
#include <vector>

namespace bench::render {

enum class Measure {
    RATIO, ///< ours to theirs
    OURS,  ///< the figure as it is
    EXCESS ///< ours beyond theirs
};

/// What a figure should be.
struct Goal {
    char const* program;
    char const* setting;
    char const* measurement;
    char const* figure;
    char const* against;
    Measure measure;
    double bound; ///< the most, or of a throughput the least

    bool keptBy(Row const& row) const;
    double valueIn(Row const& row) const;
};

std::vector<Goal> const& goals();

} // namespace bench::render
