#include "common/class_layout.hpp"

#include "support/stack_dump.hpp"
#include "support/temp_dir.hpp"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace support {

namespace {

/// What the compiler writes about the classes of this source, with all names demangled.
std::string dumpLayouts(std::string const& source) {
    TempDir const directory;
    std::ofstream(directory.file("source.cpp")) << source;
    std::string const layout = directory.file("layout");
    return outputOf(ZYM_LAYOUT_COMPILER " -std=c++17 -fsyntax-only -fdump-lang-class=" + layout
                    + " " ZYM_LAYOUT_INCLUDES " " + directory.file("source.cpp") + " && c++filt <"
                    + layout);
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
        throw std::runtime_error("the compiler has no virtual table of " + className);
    }
    return tables;
}

} // namespace support
