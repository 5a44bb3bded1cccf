#pragma once

#include <string>
#include <vector>

using Strings = std::vector<std::string>;

/// The document of a list of links.
/// @param ids as JSON writes them between the quotation marks
inline std::string listOf(Strings const& ids) {
    std::string members;
    for (auto const& id : ids) {
        members += (members.empty() ? "" : ", ") + (R"({"@id": ")" + id + "\"}");
    }
    return "{\"members@count\": " + std::to_string(ids.size()) + ", \"members\": [" + members
           + "]}";
}
