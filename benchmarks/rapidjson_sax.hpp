#pragma once

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <string>
#include <vector>

/// The documents as a user of bare RapidJSON would read them who is in a hurry: a handler that
/// takes each member as it comes by.
namespace bench::rapid::sax {

/// Reads a document.
/// @throws std::runtime_error when something is missing
void read(std::string const& text, conv::CommunicationStatus& value);
void read(std::string const& text, conv::Identification& value);
void read(std::string const& text, conv::ServiceStatus& value);
void read(std::string const& text, mqtt::Link& value);
void read(std::string const& text, std::vector<mqtt::Link>& value);
void read(std::string const& text, mqtt::RequestReply::Request& value);
void read(std::string const& text, mqtt::RequestReply::Reply& value);

/// Reads a document and makes nothing of it: what the reader alone takes.
/// @throws std::runtime_error when it is none
void skip(std::string const& text);

} // namespace bench::rapid::sax
