#pragma once

#include <string>
#include <vector>

namespace support {

/// The functions of one virtual table, in slot order, with the class that they come from:
/// "mqtt::MqttClient::on_connect". A virtual destructor has two entries in a row.
using VirtualTable = std::vector<std::string>;

/// Asks the compiler how it lays out the virtual tables of a class: the primary one, and behind
/// it those of the other bases. Functions reached through a thunk have their own names.
///
/// The slots of pure virtual functions have no names: derive a class that overrides them all, and
/// ask for that one.
/// @param source C++ source that defines the class; the library's public headers can be included
/// @param className with its namespaces
/// @throws std::runtime_error when the source does not compile (the compiler writes why to standard
///         error), and when there is no such class or it has no virtual table
std::vector<VirtualTable> virtualTables(std::string const& source, std::string const& className);

} // namespace support
