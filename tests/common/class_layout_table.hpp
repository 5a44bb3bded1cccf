#pragma once

#include "common/class_layout.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

/// The virtual tables that compiled programs rely on: which function stands in which slot.
struct ClassLayout {
    std::string header;    ///< that defines the class
    std::string className; ///< with its namespaces
    /// Only for a class with abstract functions: their declarations. A class derived from it, which
    /// overrides them, is looked at instead.
    std::string overrides;
    /// The primary table, and those of the other bases. A function without "::" is a member of the
    /// class that is looked at; "~" is a slot of its destructor, which has two in a row.
    std::vector<support::VirtualTable> tables;
};

inline void PrintTo(ClassLayout const& layout, std::ostream* out) {
    *out << layout.className;
}

/// "mqtt::MqttData<mqtt::Link>" becomes "MqttData".
inline std::string plainClassName(std::string const& className) {
    auto const name = className.substr(0, className.find('<'));
    auto const separator = name.rfind("::");
    return separator == std::string::npos ? name : name.substr(separator + 2);
}

inline void expectLayout(ClassLayout const& layout) {
    bool const isDerived = !layout.overrides.empty();
    std::string const className = isDerived ? "Derived" : layout.className;
    std::string source = "#include <" + layout.header + ">\n";
    if (isDerived) {
        source += "struct Derived : " + layout.className
                  + " {\n    using Base = " + layout.className + ";\n" + layout.overrides + "};\n";
    }
    auto expected = layout.tables;
    for (auto& table : expected) {
        for (auto& function : table) {
            if (function == "~") {
                function += plainClassName(className);
            }
            if (function.find("::") == std::string::npos) {
                function.insert(0, className + "::");
            }
        }
    }
    EXPECT_EQ(support::virtualTables(source, className), expected);
}

/// The name of a row among the tests: letters and digits of the class's name.
inline std::string nameOfLayout(testing::TestParamInfo<ClassLayout> const& row) {
    std::string name = row.param.className;
    name.erase(std::remove_if(name.begin(), name.end(),
                              [](unsigned char c) { return std::isalnum(c) == 0; }),
               name.end());
    return name;
}
