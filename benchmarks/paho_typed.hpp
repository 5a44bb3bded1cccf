#pragma once

#include "party.hpp"

#include <memory>
#include <string>

namespace bench {

/// Sends the text of the sample value, made once.
std::unique_ptr<ValuePublisher> makePahoValuePublisher(int port, std::string const& topic,
                                                       Document document);
/// Sends and answers ready-made texts, and reads none.
std::unique_ptr<Requester> makePahoRequester(int port);

} // namespace bench
