#include "guide.hpp"

#include <fstream>
#include <sstream>

namespace {

std::string trimmed(std::string const& text) {
    auto const first = text.find_first_not_of(' ');
    return first == std::string::npos ? ""
                                      : text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

std::vector<std::string> cellsOf(std::string const& line) {
    std::vector<std::string> cells;
    std::istringstream in(line.substr(1));
    for (std::string cell; std::getline(in, cell, '|');) {
        cells.push_back(trimmed(cell));
    }
    return cells;
}

/// The texts between two marks each.
std::vector<std::string> marked(std::string const& text, std::string const& mark) {
    std::vector<std::string> found;
    auto begin = text.find(mark);
    while (begin != std::string::npos) {
        begin += mark.size();
        auto const end = text.find(mark, begin);
        if (end == std::string::npos) {
            break;
        }
        found.push_back(text.substr(begin, end - begin));
        begin = text.find(mark, end + mark.size());
    }
    return found;
}

Row rowOf(std::vector<std::string> const& cells, std::string& className) {
    auto const classes = marked(cells[0], "**");
    if (!classes.empty()) {
        className = classes[0];
    }
    Row row;
    for (auto const& operation : marked(cells[0], "`")) {
        row.names.push_back(std::string(className).append("/").append(operation));
    }
    if (row.names.empty()) {
        row.names.push_back(className);
    }
    for (std::size_t i = 1; i < cells.size(); ++i) {
        row.cells.push_back(trimmed(cells[i].substr(0, cells[i].find('('))));
    }
    return row;
}

} // namespace

std::vector<Row> tableOfTheGuide(std::string const& heading) {
    std::ifstream page(ZYM_MQTT_CALLBACKS_PAGE);
    std::vector<Row> rows;
    std::string className;
    std::string line;
    bool inside = false;
    int tableLines = 0;
    while (std::getline(page, line)) {
        if (line.rfind("## ", 0) == 0) {
            inside = line == "## " + heading;
            tableLines = 0;
        }
        // The first two lines are the heads of the columns and a rule.
        if (inside && line.rfind('|', 0) == 0 && ++tableLines > 2) {
            rows.push_back(rowOf(cellsOf(line), className));
        }
    }
    return rows;
}
