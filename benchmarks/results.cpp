#include "results.hpp"

#include <stdexcept>
#include <utility>

namespace bench {

namespace {

/// No field may hold what stands between fields.
std::string field(std::string text) {
    for (char& byte : text) {
        if (byte == ',' || byte == '\n') {
            byte = ';';
        }
    }
    return text;
}

} // namespace

Results::Results(std::string const& path, std::string program) : program_(std::move(program)) {
    if (!path.empty()) {
        file_.open(path, std::ios::app);
        if (!file_) {
            throw std::runtime_error("cannot write " + path);
        }
    }
}

void Results::addCondition(std::string const& text) {
    file_ << "# " << text << '\n' << std::flush;
}

void Results::add(std::string const& setting, std::string const& measurement,
                  Comparison const& comparison) {
    file_ << program_ << ',' << field(setting) << ',' << field(measurement) << ','
          << field(comparison.name) << ',' << comparison.unit << ',' << comparison.against << ','
          << comparison.reference.median << ',' << comparison.candidate.median << ','
          << comparison.ratio.median << ',' << comparison.ratio.lowest << ','
          << comparison.ratio.highest << '\n'
          << std::flush;
}

} // namespace bench
