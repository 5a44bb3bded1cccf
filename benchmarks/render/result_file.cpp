#include "result_file.hpp"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace bench::render {
namespace {

constexpr std::size_t TEXTS = 6;
constexpr std::size_t NUMBERS = 5;

std::vector<std::string> fieldsOf(std::string const& line) {
    std::vector<std::string> fields;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, ',');) {
        std::replace(field.begin(), field.end(), ';', ','); // as it was before it was written
        fields.push_back(field);
    }
    return fields;
}

Row rowOf(std::string const& line) {
    auto const fields = fieldsOf(line);
    if (fields.size() != TEXTS + NUMBERS) {
        throw std::invalid_argument("wrong number of fields");
    }
    Row row{fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]};
    double* const numbers[NUMBERS] = {&row.theirs, &row.ours, &row.ratio, &row.lowest,
                                      &row.highest};
    for (std::size_t i = 0; i < NUMBERS; ++i) {
        *numbers[i] = std::stod(fields[TEXTS + i]);
    }
    return row;
}

} // namespace

std::vector<Row> ResultFile::of(std::string const& program) const {
    std::vector<Row> result;
    std::copy_if(rows.begin(), rows.end(), std::back_inserter(result),
                 [&](Row const& row) { return row.program == program; });
    return result;
}

Row const* ResultFile::find(std::string const& program, std::string const& setting,
                            std::string const& measurement, std::string const& figure,
                            std::string const& against) const {
    auto const found = std::find_if(rows.begin(), rows.end(), [&](Row const& row) {
        return row.program == program && row.setting == setting && row.measurement == measurement
               && row.figure == figure && row.against == against;
    });
    return found == rows.end() ? nullptr : &*found;
}

ResultFile readResults(std::istream& in) {
    ResultFile file;
    unsigned number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        if (line.rfind("# ", 0) == 0) {
            file.conditions.push_back(line.substr(2));
            continue;
        }
        try {
            file.rows.push_back(rowOf(line));
        } catch (std::exception const& error) {
            throw std::runtime_error("line " + std::to_string(number) + ": " + error.what());
        }
    }
    return file;
}

} // namespace bench::render
