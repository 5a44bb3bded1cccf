#include "tables.hpp"

#include "goals.hpp"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

namespace bench::render {
namespace {

using Texts = std::vector<std::string>;

void line(std::ostream& out, Texts const& cells) {
    out << '|';
    for (auto const& cell : cells) {
        out << ' ' << cell << " |";
    }
    out << '\n';
}

void head(std::ostream& out, Texts const& cells) {
    out << '\n';
    line(out, cells);
    line(out, Texts(cells.size(), "---"));
}

/// A ratio with what it lay between.
std::string cellOf(Row const* row) {
    if (row == nullptr) {
        return "-";
    }
    if (!std::isfinite(row->ratio)) {
        return shortNumber(row->ours) + " to " + shortNumber(row->theirs);
    }
    return shortNumber(row->ratio) + " (" + shortNumber(row->lowest) + ".."
           + shortNumber(row->highest) + ')';
}

/// What was measured, each figure once.
std::vector<std::pair<std::string, std::string>> figuresOf(std::vector<Row> const& rows) {
    std::vector<std::pair<std::string, std::string>> result;
    for (auto const& row : rows) {
        std::pair<std::string, std::string> const figure{row.measurement, row.figure};
        if (std::find(result.begin(), result.end(), figure) == result.end()) {
            result.push_back(figure);
        }
    }
    return result;
}

Texts distinct(std::vector<Row> const& rows, std::string Row::*field) {
    Texts result;
    for (auto const& row : rows) {
        if (std::find(result.begin(), result.end(), row.*field) == result.end()) {
            result.push_back(row.*field);
        }
    }
    return result;
}

void writeConditions(ResultFile const& results, std::ostream& out) {
    out << "Conditions:\n\n";
    for (auto const& condition : results.conditions) {
        out << "- " << condition << '\n';
    }
}

char const* describe(Measure measure, bool moreIsBetter) {
    switch (measure) {
    case Measure::OURS:
        return "at most";
    case Measure::EXCESS:
        return "beyond it at most";
    case Measure::RATIO:
        break;
    }
    return moreIsBetter ? "of it at least" : "of it at most";
}

void writeGoals(ResultFile const& results, std::ostream& out) {
    out << "\n### Goals\n";
    head(out, {"measurement", "figure", "beside", "goal", "measured", "kept"});
    for (auto const& goal : goals()) {
        Row const* const row =
            results.find(goal.program, goal.setting, goal.measurement, goal.figure, goal.against);
        if (row == nullptr) {
            continue;
        }
        std::string const setting = row->setting.empty() ? "" : ", broker " + row->setting;
        std::string const bound =
            std::string(describe(goal.measure, row->moreIsBetter())) + ' ' + shortNumber(goal.bound)
            + (goal.measure == Measure::RATIO || row->unit.empty() ? "" : ' ' + row->unit);
        line(out, {row->measurement + setting, row->figure, row->against, bound,
                   shortNumber(goal.valueIn(*row)), goal.keptBy(*row) ? "yes" : "**no**"});
    }
}

void writeClients(ResultFile const& results, std::ostream& out) {
    auto const rows = results.of("client");
    auto const settings = distinct(rows, &Row::setting);
    auto const references = distinct(rows, &Row::against);
    Texts titles{"measurement", "figure"};
    for (auto const& setting : settings) {
        for (auto const& reference : references) {
            titles.push_back(setting + ": to " + reference);
        }
    }
    out << "\n### Clients\n\nThroughput is better above 1, all else below.\n";
    head(out, titles);
    for (auto const& [measurement, figure] : figuresOf(rows)) {
        Texts cells{measurement, figure};
        for (auto const& setting : settings) {
            for (auto const& reference : references) {
                cells.push_back(
                    cellOf(results.find("client", setting, measurement, figure, reference)));
            }
        }
        line(out, cells);
    }
}

void writeByReference(ResultFile const& results, std::string const& program, char const* title,
                      std::ostream& out) {
    auto const rows = results.of(program);
    auto const references = distinct(rows, &Row::against);
    Texts titles{"measurement", "figure"};
    for (auto const& reference : references) {
        titles.push_back("to " + reference);
    }
    out << "\n### " << title << '\n';
    head(out, titles);
    for (auto const& [measurement, figure] : figuresOf(rows)) {
        Texts cells{measurement, figure};
        for (auto const& reference : references) {
            cells.push_back(cellOf(results.find(program, "", measurement, figure, reference)));
        }
        line(out, cells);
    }
}

void writeDispatch(ResultFile const& results, std::ostream& out) {
    auto const rows = results.of("dispatch");
    Texts const numbers = distinct(rows, &Row::figure);
    out << "\n### Dispatch\n\nOne message with so many subscriptions, to the same with ten.\n";
    Texts titles{"messages"};
    titles.insert(titles.end(), numbers.begin(), numbers.end());
    head(out, titles);
    for (auto const& measurement : distinct(rows, &Row::measurement)) {
        Texts cells{measurement};
        for (auto const& number : numbers) {
            cells.push_back(cellOf(results.find("dispatch", "", measurement, number, "10")));
        }
        line(out, cells);
    }
}

void writePaths(ResultFile const& results, std::ostream& out) {
    auto const rows = results.of("paths");
    out << "\n### Ways in and out, in process\n";
    head(out, {"way", "allocations", "allocations by hand", "processor time to that by hand"});
    for (auto const& way : distinct(rows, &Row::measurement)) {
        Row const* const allocations = results.find("paths", "", way, "allocations", "by hand");
        if (allocations != nullptr) {
            line(out, {way, shortNumber(allocations->ours), shortNumber(allocations->theirs),
                       cellOf(results.find("paths", "", way, "processor time", "by hand"))});
        }
    }
}

void writeBehindPaho(ResultFile const& results, std::ostream& out) {
    std::vector<Row> behind;
    std::copy_if(results.rows.begin(), results.rows.end(), std::back_inserter(behind),
                 [](Row const& row) { return row.against == "Paho" && !row.ahead(); });
    if (behind.empty()) {
        return;
    }
    out << "\n### Not ahead of Paho\n\n";
    for (auto const& row : behind) {
        out << "- " << row.measurement << ", " << row.figure
            << (row.setting.empty() ? "" : ", broker " + row.setting) << ": " << cellOf(&row)
            << '\n';
    }
}

} // namespace

std::string shortNumber(double value) {
    std::ostringstream text;
    constexpr double SMALL = 0.1;
    constexpr double LARGE = 100;
    bool const whole = value == std::floor(value) && value < 1e6;
    int const digits = whole || value >= LARGE ? 0 : value < SMALL ? 3 : 2;
    text << std::fixed << std::setprecision(digits) << value;
    return text.str();
}

void writeTables(ResultFile const& results, std::string const& plot, std::ostream& out) {
    writeConditions(results, out);
    out << "\n![Advantage over the others, with the lowest and the highest of all repetitions]("
        << plot << ")\n";
    writeGoals(results, out);
    writeBehindPaho(results, out);
    writeClients(results, out);
    writeByReference(results, "idle", "A client that is connected and does nothing", out);
    writeByReference(results, "documents", "Documents", out);
    writeDispatch(results, out);
    writePaths(results, out);
}

} // namespace bench::render
