#include "runner.hpp"

#include <cstddef>

namespace bench {
namespace {

struct Samples {
    std::vector<double> reference;
    std::vector<double> candidate;
    std::vector<double> ratio;
};

void append(std::vector<Samples>& all, std::vector<Figure> const& reference,
            std::vector<Figure> const& candidate) {
    all.resize(reference.size());
    for (std::size_t i = 0; i < reference.size(); ++i) {
        all[i].reference.push_back(reference[i].value);
        all[i].candidate.push_back(candidate[i].value);
        all[i].ratio.push_back(candidate[i].value / reference[i].value);
    }
}

} // namespace

std::vector<Comparison> compare(Measurement const& measurement, Party& reference, Party& candidate,
                                BrokerProcess const& broker, unsigned repetitions) {
    std::vector<Figure> figures;
    std::vector<Samples> samples;
    for (unsigned repetition = 0; repetition < repetitions; ++repetition) {
        figures = measurement.run(reference, broker);
        append(samples, figures, measurement.run(candidate, broker));
    }
    std::vector<Comparison> comparisons;
    for (std::size_t i = 0; i < figures.size(); ++i) {
        comparisons.push_back({figures[i].name, figures[i].unit, summarize(samples[i].reference),
                               summarize(samples[i].candidate), summarize(samples[i].ratio)});
    }
    return comparisons;
}

} // namespace bench
