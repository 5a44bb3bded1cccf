#include "guide.hpp"

#include <fstream>
#include <regex>

namespace {

/// What the group of the pattern matches, again and again.
std::vector<std::string> allMatches(std::string const& text, std::string const& pattern) {
    std::regex const regex(pattern);
    std::vector<std::string> found;
    for (std::sregex_iterator match(text.begin(), text.end(), regex);
         match != std::sregex_iterator(); ++match) {
        found.push_back((*match)[1]);
    }
    return found;
}

Row rowOf(std::vector<std::string> const& cells, std::string& className) {
    auto const classes = allMatches(cells[0], R"(\*\*(.+?)\*\*)");
    className = classes.empty() ? className : classes[0];
    Row row;
    for (auto const& operation : allMatches(cells[0], "`(.+?)`")) {
        row.names.push_back(std::string(className).append("/").append(operation));
    }
    if (row.names.empty()) {
        row.names.push_back(className);
    }
    for (std::size_t i = 1; i < cells.size(); ++i) {
        row.cells.push_back(std::regex_replace(cells[i], std::regex(R"(^ +| *\(.*| +$)"), ""));
    }
    return row;
}

} // namespace

std::vector<Row> tableOfTheGuide(std::string const& heading) {
    std::ifstream page(ZYM_MQTT_CALLBACKS_PAGE);
    std::vector<Row> rows;
    std::string className;
    bool inside = false;
    int tableLines = 0;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind("## ", 0) == 0) {
            inside = line == "## " + heading;
            tableLines = 0;
        }
        // The first two lines are the heads of the columns and a rule.
        if (inside && line.rfind('|', 0) == 0 && ++tableLines > 2) {
            rows.push_back(rowOf(allMatches(line, R"(\|([^|]+))"), className));
        }
    }
    return rows;
}
