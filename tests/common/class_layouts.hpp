#pragma once

#include <string>
#include <vector>

/// The functions of one virtual table, in slot order.
using VirtualTable = std::vector<std::string>;

/// The virtual tables that compiled programs rely on: which function stands in which slot.
struct ClassLayout {
    std::string header;    ///< that defines the class
    std::string className; ///< with its namespaces
    /// Only for a class with abstract functions: their declarations. A class derived from it, which
    /// overrides them, is looked at instead.
    std::string overrides;
    /// The primary table, and those of the other bases. A function without "::" is a member of the
    /// class that is looked at; "~" is a slot of its destructor, which has two in a row.
    std::vector<VirtualTable> tables;
};

/// Asks a compiler for the virtual tables of all these classes, in one run, and compares them.
void expectLayouts(std::vector<ClassLayout> const& layouts);
