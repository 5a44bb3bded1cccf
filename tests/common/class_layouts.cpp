#include "common/class_layouts.hpp"

#include "support/process.hpp"
#include "support/temp_dir.hpp"

#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string_view>

namespace {

/// What the compiler writes about the classes of this source.
std::string dumpLayouts(std::string const& source) {
    support::TempDir const directory;
    std::ofstream(directory.file("source.cpp")) << source;
    std::vector<std::string> command{ZYM_LAYOUT_COMPILER, "-std=c++17", "-fsyntax-only",
                                     "-fdump-lang-class=" + directory.file("layout")};
    std::istringstream includes(ZYM_LAYOUT_INCLUDES);
    for (std::string folder; std::getline(includes, folder, ':');) {
        if (!folder.empty()) {
            command.push_back("-I" + folder);
        }
    }
    command.push_back(directory.file("source.cpp"));
    support::Process compiler(command, directory.file("messages"));
    EXPECT_TRUE(compiler.waitForEnd(std::chrono::minutes(5)));
    EXPECT_EQ(compiler.status(), 0) << directory.read("messages");
    return directory.read("layout");
}

std::string demangled(std::string const& name) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> const text(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), &std::free);
    return status == 0 ? std::string(text.get()) : name;
}

/// "virtual thunk to a::B::c(int) const" and "a::B::c" become "a::B::c".
std::string plainName(std::string const& name) {
    constexpr std::string_view THUNK = "thunk to ";
    std::string text = name;
    std::size_t const mangled = text.find("_ZT");
    if (mangled != std::string::npos) {
        text = demangled(text.substr(mangled));
    }
    std::size_t const thunk = text.find(THUNK);
    if (thunk != std::string::npos) {
        text.erase(0, thunk + THUNK.size());
    }
    return text.substr(0, text.find('('));
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
    if (entry.find("_ZTI") != std::string::npos) {
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
