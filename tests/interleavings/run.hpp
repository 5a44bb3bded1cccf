#pragma once

#include "interleavings/journal.hpp"
#include "interleavings/scenario.hpp"
#include "interleavings/scheduler.hpp"

#include <iosfwd>
#include <string>
#include <vector>

namespace interleavings {

/// How one run went.
struct Outcome {
    std::string failure; ///< empty: none
    std::vector<Choice> choices;
};

/// Runs scenarios, each time in a process of its own.
class Runner {
public:
    Runner(Scenario const& scenario, bool mistaken);

    Outcome run(Plan plan);
    /// The same; prints every switch and, after a failure, where each thread stands.
    Outcome tell(Plan plan, std::ostream& out);
    std::size_t count() const { return count_; }

private:
    [[noreturn]] void act(Plan const& plan) const;

    Scenario const& scenario_;
    bool const mistaken_;
    Journal& journal_;
    std::size_t count_ = 0;
};

} // namespace interleavings
