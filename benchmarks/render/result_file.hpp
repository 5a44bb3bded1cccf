#pragma once

#include <istream>
#include <string>
#include <vector>

namespace bench::render {

/// One line of what the benchmarks have measured.
struct Row {
    std::string program;
    std::string setting;
    std::string measurement;
    std::string figure;
    std::string unit;
    std::string against;
    double theirs = 0;
    double ours = 0;
    double ratio = 0;
    double lowest = 0;
    double highest = 0;

    bool moreIsBetter() const { return figure == "throughput"; }
    bool ahead() const { return moreIsBetter() ? ratio > 1 : ratio < 1; }
};

struct ResultFile {
    std::vector<std::string> conditions;
    std::vector<Row> rows;

    /// Those of a program, in the order in which they were measured.
    std::vector<Row> of(std::string const& program) const;
    /// @return nullptr when there is none
    Row const* find(std::string const& program, std::string const& setting,
                    std::string const& measurement, std::string const& figure,
                    std::string const& against) const;
};

/// @throws std::runtime_error with the number of the line that is none of ours
ResultFile readResults(std::istream& in);

} // namespace bench::render
