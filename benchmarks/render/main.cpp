// Puts what the benchmarks have measured into a page and a plot.

#include "page.hpp"
#include "plot.hpp"
#include "result_file.hpp"
#include "tables.hpp"

#include <cstdio>
#include <exception>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

constexpr char const* USAGE = "bench-render RESULTS PAGE PLOT\n"
                              "Puts figures into a Markdown page, between its marks, and an SVG "
                              "plot beside it.\n";

std::string fileName(std::string const& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string read(char const* path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) {
        throw std::runtime_error(std::string("cannot read ") + path);
    }
    return text.str();
}

void write(char const* path, std::string const& text) {
    std::ofstream out(path);
    if (!(out << text).flush()) {
        throw std::runtime_error(std::string("cannot write ") + path);
    }
}

void render(char const* resultPath, char const* pagePath, char const* plotPath) {
    std::istringstream in(read(resultPath));
    auto const results = bench::render::readResults(in);
    std::ostringstream tables;
    bench::render::writeTables(results, fileName(plotPath), tables);
    std::ostringstream plot;
    bench::render::writePlot(results, plot);
    write(pagePath, bench::render::withFigures(read(pagePath), tables.str()));
    write(plotPath, plot.str());
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    try {
        render(argv[1], argv[2], argv[3]);
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "bench-render: %s\n", error.what());
        return 1;
    }
}
