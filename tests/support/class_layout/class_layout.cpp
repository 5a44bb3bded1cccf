#include "support/class_layout/class_layout.hpp"

#include "support/process.hpp"
#include "support/temp_dir.hpp"

#include <cxxabi.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace support {

namespace {

/// What the compiler writes about the classes of this source.
std::string dumpLayouts(std::string const& source) {
    TempDir const directory;
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
    Process compiler(command, directory.file("messages"));
    if (!compiler.waitForEnd() || compiler.status() != 0) {
        throw std::runtime_error("no class layout from the compiler: "
                                 + directory.read("messages"));
    }
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
