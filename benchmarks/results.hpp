#pragma once

#include "statistics.hpp"

#include <fstream>
#include <string>

namespace bench {

/// One figure over all repetitions, beside that of somebody else.
struct Comparison {
    std::string name;
    std::string unit;
    std::string against;
    Summary reference;
    Summary candidate;
    Summary ratio; ///< candidate to reference, formed inside each repetition
};

/// What was measured, for machines: appended to a file, in comma-separated values with conditions
/// as comments.
class Results {
public:
    /// @param path empty: nothing is kept
    /// @throws std::runtime_error when it cannot be written
    Results(std::string const& path, std::string program);

    void addCondition(std::string const& text);
    /// @param setting what the whole was measured under, such as the configuration of the broker
    void add(std::string const& setting, std::string const& measurement,
             Comparison const& comparison);

private:
    std::string const program_;
    std::ofstream file_;
};

} // namespace bench
