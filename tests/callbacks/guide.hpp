#pragma once

#include <string>
#include <vector>

/// A row of a table of docs/guides/threads-and-callbacks.md.
struct Row {
    std::vector<std::string> names; ///< class and operation: "Timer/stop"
    std::vector<std::string> cells; ///< of the other columns, without text in brackets
};

/// The table under this heading; empty when there is none.
///
/// A name in bold in the first column is the class of that row and of the rows below it; names in
/// code font are its operations.
std::vector<Row> tableOfTheGuide(std::string const& heading);
