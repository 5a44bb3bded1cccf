#include "common/class_layouts.hpp"

#include "mqtt/test/temp_dir.hpp"
#include "support/stack_dump.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string_view>

namespace {

/// What the compiler writes about the classes of this source, with all names demangled.
std::string dumpLayouts(std::string const& source) {
    mqtt::test::TempDir const directory;
    std::ofstream(directory.file("source.cpp")) << source;
    std::string const layout = directory.file("layout");
    return support::outputOf(ZYM_LAYOUT_COMPILER " -std=c++17 -fsyntax-only -fdump-lang-class="
                             + layout + " " ZYM_LAYOUT_INCLUDES " " + directory.file("source.cpp")
                             + " && c++filt <" + layout);
}

/// "virtual thunk to a::B::c(int) const" and "a::B::c" become "a::B::c".
std::string plainName(std::string const& name) {
    constexpr std::string_view THUNK = "thunk to ";
    std::size_t const thunk = name.find(THUNK);
    std::size_t const begin = thunk == std::string::npos ? 0 : thunk + THUNK.size();
    return name.substr(begin, name.find('(') - begin);
}

/// A line of the dump reads "24    (int (*)(...))a::B::c"; numbers are offsets. Type information is
/// ahead of the first function of each table.
void readLine(std::string const& line, std::vector<VirtualTable>& tables) {
    constexpr std::string_view CAST = "(int (*)(...))";
    std::size_t const cast = line.find(CAST);
    if (cast == std::string::npos) {
        return;
    }
    std::string const entry = line.substr(cast + CAST.size());
    if (entry.find("typeinfo for") != std::string::npos) {
        tables.emplace_back();
    } else if (entry.find("::") != std::string::npos || entry.rfind("__cxa_pure", 0) == 0) {
        tables.back().push_back(plainName(entry));
    }
}

std::vector<VirtualTable> tablesOf(std::string const& className, std::string const& dump) {
    std::istringstream lines(dump);
    std::string line;
    while (std::getline(lines, line) && line != "Vtable for " + className) {
    }
    std::vector<VirtualTable> tables;
    while (std::getline(lines, line) && !line.empty()) {
        readLine(line, tables);
    }
    return tables;
}

/// The class to look at: the one with the layout, or the one derived from it.
std::string lookedAt(ClassLayout const& layout, std::size_t row) {
    return layout.overrides.empty() ? layout.className : "row" + std::to_string(row) + "::Derived";
}

std::string sourceWith(std::vector<ClassLayout> const& layouts) {
    std::ostringstream source;
    for (std::size_t row = 0; row < layouts.size(); ++row) {
        auto const& [header, className, overrides, tables] = layouts[row];
        source << "#include <" << header << ">\n";
        if (!overrides.empty()) {
            source << "namespace row" << row << " {\nstruct Derived : " << className
                   << " {\n    using Base = " << className << ";\n"
                   << overrides << "};\n}\n";
        }
    }
    return source.str();
}

/// "mqtt::MqttData<mqtt::Link>" becomes "MqttData".
std::string plainClassName(std::string const& className) {
    auto const name = className.substr(0, className.find('<'));
    auto const separator = name.rfind("::");
    return separator == std::string::npos ? name : name.substr(separator + 2);
}

std::vector<VirtualTable> withFullNames(std::vector<VirtualTable> tables,
                                        std::string const& className) {
    for (auto& table : tables) {
        for (auto& function : table) {
            if (function == "~") {
                function += plainClassName(className);
            }
            if (function.find("::") == std::string::npos) {
                function.insert(0, className + "::");
            }
        }
    }
    return tables;
}

} // namespace

void expectLayouts(std::vector<ClassLayout> const& layouts) {
    auto const dump = dumpLayouts(sourceWith(layouts));
    for (std::size_t row = 0; row < layouts.size(); ++row) {
        auto const className = lookedAt(layouts[row], row);
        EXPECT_EQ(tablesOf(className, dump), withFullNames(layouts[row].tables, className))
            << layouts[row].className;
    }
}
