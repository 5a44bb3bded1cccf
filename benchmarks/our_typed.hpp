#pragma once

#include "party.hpp"

#include <memory>
#include <string>

namespace bench {

std::unique_ptr<ValuePublisher> makeOurValuePublisher(int port, std::string const& topic,
                                                      Document document);
std::unique_ptr<Subscriber> makeOurValueSubscriber(int port, std::string const& topic,
                                                   Document document, Tally& received);
std::unique_ptr<Requester> makeOurRequester(int port);

} // namespace bench
