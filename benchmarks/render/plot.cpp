#include "plot.hpp"

#include "tables.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace bench::render {
namespace {

/// One row of the plot: a figure, beside each of those with whom we compare.
struct Strip {
    std::string label;
    std::vector<Row> rows;
};

struct Panel {
    std::string title;
    std::vector<Strip> strips;
};

constexpr int WIDTH = 900;
constexpr int LEFT = 300;
constexpr int RIGHT = 30;
constexpr int STRIP = 18;
constexpr int TITLE = 42;
constexpr int MARGIN = 40;

// How much better: twice as good is one step to the right, half as good one to the left.
constexpr double WORST = 1.0 / 8;
constexpr double BEST = 512;

char const* colourOf(std::string const& against) {
    constexpr std::array<std::pair<char const*, char const*>, 7> COLOURS{{{"raw", "#1f5fa8"},
                                                                          {"Paho", "#d9720a"},
                                                                          {"Writer", "#1f5fa8"},
                                                                          {"SAX", "#d9720a"},
                                                                          {"DOM", "#3a8a3a"},
                                                                          {"10", "#1f5fa8"},
                                                                          {"by hand", "#1f5fa8"}}};
    for (auto const& [name, colour] : COLOURS) {
        if (against == name) {
            return colour;
        }
    }
    return "#555555";
}

double advantage(Row const& row, double ratio) {
    return row.moreIsBetter() ? ratio : 1 / ratio;
}

double xOf(double better) {
    double const clipped = std::min(std::max(better, WORST), BEST);
    double const share = std::log(clipped / WORST) / std::log(BEST / WORST);
    return LEFT + share * (WIDTH - LEFT - RIGHT);
}

bool isPlotted(Row const& row) {
    bool const plain = row.figure == "throughput" || row.figure == "client CPU"
                       || row.figure == "p50" || row.figure == "p99" || row.figure == "connect p50";
    return row.program == "client"     ? plain
           : row.program == "dispatch" ? row.figure == "10000"
           : row.program == "paths"    ? row.figure == "processor time"
                                       : row.program != "idle" || row.unit == "KiB";
}

Panel panelOf(ResultFile const& results, std::string const& program, std::string const& setting,
              std::string title) {
    Panel panel{std::move(title), {}};
    for (auto const& row : results.rows) {
        if (row.program != program || row.setting != setting || !isPlotted(row)) {
            continue;
        }
        std::string const label = row.measurement + ", " + row.figure;
        if (panel.strips.empty() || panel.strips.back().label != label) {
            panel.strips.push_back({label, {}});
        }
        panel.strips.back().rows.push_back(row);
    }
    return panel;
}

int heightOf(Panel const& panel) {
    return panel.strips.empty() ? 0 : TITLE + STRIP * (static_cast<int>(panel.strips.size()) + 1);
}

std::string escaped(std::string const& text) {
    std::string result;
    for (char const byte : text) {
        result += byte == '&' ? "&amp;" : byte == '<' ? "&lt;" : std::string(1, byte);
    }
    return result;
}

void drawText(std::ostream& out, double x, double y, char const* anchor, std::string const& text) {
    out << "<text x=\"" << x << "\" y=\"" << y << "\" text-anchor=\"" << anchor << "\">"
        << escaped(text) << "</text>\n";
}

void drawLine(std::ostream& out, double x, double y, double toX, double toY, char const* colour) {
    out << "<line x1=\"" << x << "\" y1=\"" << y << "\" x2=\"" << toX << "\" y2=\"" << toY
        << "\" stroke=\"" << colour << "\"/>\n";
}

void drawScale(std::ostream& out, int top, int bottom) {
    for (double better = WORST; better <= BEST; better *= 2) {
        double const x = xOf(better);
        drawLine(out, x, top, x, bottom, better == 1 ? "#222222" : "#dddddd");
        drawText(out, x, bottom + 12, "middle",
                 better < 1 ? "1/" + shortNumber(1 / better) : shortNumber(better));
    }
}

void drawRow(std::ostream& out, Row const& row, double y) {
    if (!std::isfinite(row.ratio) || row.ratio <= 0) {
        return;
    }
    char const* const colour = colourOf(row.against);
    drawLine(out, xOf(advantage(row, row.lowest)), y, xOf(advantage(row, row.highest)), y, colour);
    out << "<circle cx=\"" << xOf(advantage(row, row.ratio)) << "\" cy=\"" << y
        << "\" r=\"3.5\" fill=\"" << colour << "\"><title>" << escaped(row.against) << ": "
        << shortNumber(row.ratio) << "</title></circle>\n";
}

std::set<std::string> referencesOf(Panel const& panel) {
    std::set<std::string> names;
    for (auto const& strip : panel.strips) {
        for (auto const& row : strip.rows) {
            names.insert(row.against);
        }
    }
    return names;
}

void drawLegend(std::ostream& out, Panel const& panel, double y) {
    double x = WIDTH - RIGHT;
    for (auto const& name : referencesOf(panel)) {
        drawText(out, x, y, "end", "to " + name);
        x -= 12 + 7.0 * static_cast<double>(name.size() + 3);
        out << "<circle cx=\"" << x + 4 << "\" cy=\"" << y - 4 << "\" r=\"3.5\" fill=\""
            << colourOf(name) << "\"/>\n";
        x -= 12;
    }
}

void drawPanel(std::ostream& out, Panel const& panel, int top) {
    int y = top + TITLE;
    out << "<text x=\"10\" y=\"" << top + 22 << "\" font-weight=\"bold\">" << escaped(panel.title)
        << "</text>\n";
    drawLegend(out, panel, top + 22);
    drawScale(out, y - STRIP / 2, y + STRIP * static_cast<int>(panel.strips.size()) - STRIP / 2);
    for (auto const& strip : panel.strips) {
        drawText(out, LEFT - 10, y + 4, "end", strip.label);
        double at = y - 2.5 * static_cast<double>(strip.rows.size() - 1);
        for (auto const& row : strip.rows) {
            drawRow(out, row, at);
            at += 5;
        }
        y += STRIP;
    }
}

} // namespace

void writePlot(ResultFile const& results, std::ostream& out) {
    std::vector<Panel> const panels{
        panelOf(results, "client", "as shipped", "Broker as shipped"),
        panelOf(results, "client", "set_tcp_nodelay true", "Broker with set_tcp_nodelay true"),
        panelOf(results, "idle", "", "Memory of a client that is connected and does nothing"),
        panelOf(results, "documents", "", "Documents, beside RapidJSON"),
        panelOf(results, "dispatch", "", "Dispatch with 10000 subscriptions, beside ten"),
        panelOf(results, "paths", "", "Ways in and out, in process")};
    int height = MARGIN + MARGIN / 2;
    for (auto const& panel : panels) {
        height += heightOf(panel);
    }
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << WIDTH << "\" height=\"" << height
        << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    drawText(out, 10, 24, "start", "How many times better than the others: right of 1 is better.");
    int top = MARGIN;
    for (auto const& panel : panels) {
        if (!panel.strips.empty()) {
            drawPanel(out, panel, top);
        }
        top += heightOf(panel);
    }
    out << "</svg>\n";
}

} // namespace bench::render
