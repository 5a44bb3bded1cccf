#pragma once

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <cstddef>
#include <string>
#include <vector>

/// The documents as a user of bare RapidJSON would write and read them: a writer into a buffer,
/// and a document whose members are looked up and checked.
namespace bench::rapid {

/// Writes a document, which is then thrown away.
/// @return its length
std::size_t write(conv::CommunicationStatus const& value);
std::size_t write(conv::Identification const& value);
std::size_t write(conv::ServiceStatus const& value);
std::size_t write(mqtt::Link const& value);
std::size_t write(std::vector<mqtt::Link> const& value);
std::size_t write(mqtt::RequestReply::Request const& value);
std::size_t write(mqtt::RequestReply::Reply const& value);

/// Writes a document for somebody who keeps it.
std::string text(conv::CommunicationStatus const& value);
std::string text(conv::Identification const& value);

/// Reads a document.
/// @throws std::runtime_error when something is missing: a comparison of which one side failed
///         shows nothing
void read(std::string const& text, conv::CommunicationStatus& value);
void read(std::string const& text, conv::Identification& value);
void read(std::string const& text, conv::ServiceStatus& value);
void read(std::string const& text, mqtt::Link& value);
void read(std::string const& text, std::vector<mqtt::Link>& value);
void read(std::string const& text, mqtt::RequestReply::Request& value);
void read(std::string const& text, mqtt::RequestReply::Reply& value);

} // namespace bench::rapid
