#include "runner.hpp"

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <utility>

namespace bench {
namespace {

using Repetitions = std::vector<std::vector<Figure>>;

std::vector<double> valuesOf(Repetitions const& repetitions, std::size_t figure) {
    std::vector<double> result;
    for (auto const& figures : repetitions) {
        result.push_back(figures[figure].value);
    }
    return result;
}

Comparison compareOne(Figure const& figure, char const* against, std::vector<double> const& theirs,
                      std::vector<double> const& ours) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < ours.size(); ++i) {
        ratios.push_back(ours[i] / theirs[i]);
    }
    return {figure.name,       figure.unit,     against,
            summarize(theirs), summarize(ours), summarize(ratios)};
}

} // namespace

Contest makeContest(bool control) {
    Contest contest;
    contest.references.push_back(makeRawParty());
    contest.candidate = control ? makeRawParty() : makeOurParty();
    if (auto paho = makePahoParty()) {
        contest.references.push_back(std::move(paho));
    } else {
        std::printf("Paho C++ was not there to build with: its rows are left out. "
                    "scripts/setup --bench installs it.\n");
    }
    return contest;
}

std::vector<Comparison> compare(Measurement const& measurement, Contest const& contest,
                                BrokerProcess const& broker, unsigned repetitions) {
    Repetitions ours;
    std::vector<Repetitions> theirs(contest.references.size());
    for (unsigned repetition = 0; repetition < repetitions; ++repetition) {
        for (std::size_t i = 0; i < theirs.size(); ++i) {
            theirs[i].push_back(measurement.run(*contest.references[i], broker));
        }
        ours.push_back(measurement.run(*contest.candidate, broker));
    }
    std::vector<Comparison> comparisons;
    for (std::size_t figure = 0; figure < ours.front().size(); ++figure) {
        for (std::size_t i = 0; i < theirs.size(); ++i) {
            auto const values = valuesOf(theirs[i], figure);
            if (!std::isnan(values.front())) {
                comparisons.push_back(compareOne(ours.front()[figure],
                                                 contest.references[i]->name(), values,
                                                 valuesOf(ours, figure)));
            }
        }
    }
    return comparisons;
}

} // namespace bench
