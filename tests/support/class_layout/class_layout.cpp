#include "support/class_layout/class_layout.hpp"

#include "support/process.hpp"
#include "support/temp_dir.hpp"

#include <cxxabi.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace support {

namespace {

std::string contentOf(std::string const& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<std::string> includeOptions() {
    std::vector<std::string> options;
    std::istringstream directories(ZYM_LAYOUT_INCLUDES);
    for (std::string directory; std::getline(directories, directory, ':');) {
        if (!directory.empty()) {
            options.push_back("-I" + directory);
        }
    }
    return options;
}

std::string dumpLayouts(std::string const& source) {
    TempDir const place;
    std::ofstream(place.file("source.cpp")) << source;
    std::vector<std::string> command{ZYM_LAYOUT_COMPILER, "-std=c++17", "-fsyntax-only",
                                     "-fdump-lang-class=" + place.file("layout")};
    for (std::string const& option : includeOptions()) {
        command.push_back(option);
    }
    command.push_back(place.file("source.cpp"));
    Process compiler(command, place.file("words"));
    if (!compiler.waitForEnd() || compiler.status() != 0) {
        throw std::runtime_error("no class layout from the compiler: "
                                 + contentOf(place.file("words")));
    }
    return contentOf(place.file("layout"));
}

std::string demangled(std::string const& name) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> const text(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), &std::free);
    return status == 0 ? std::string(text.get()) : name;
}

// "virtual thunk to a::B::c(int) const" or "a::B::c" become "a::B::c".
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

// One line of the dump reads "24    (int (*)(...))a::B::c"; numbers are offsets, and type
// information stands before the first function of each table.
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

} // namespace

std::vector<VirtualTable> virtualTables(std::string const& source, std::string const& className) {
    std::istringstream dump(dumpLayouts(source));
    std::string line;
    while (std::getline(dump, line) && line != "Vtable for " + className) {
    }
    std::vector<VirtualTable> tables;
    while (std::getline(dump, line) && !line.empty()) {
        readLine(line, tables);
    }
    if (tables.empty()) {
        throw std::runtime_error("the compiler knows no virtual table of " + className);
    }
    return tables;
}

} // namespace support
