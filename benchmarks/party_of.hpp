#pragma once

#include "documents.hpp"
#include "party.hpp"

#include <memory>
#include <string>

namespace bench {

/// A party that makes these; it has yet to say who it is, and how it makes what sends values.
template <class APublisher, class ASubscriber, class ADialogue, class ACaller>
class PartyOf : public Party {
public:
    std::unique_ptr<Publisher> makePublisher(int port, std::string const& topic) override {
        return std::make_unique<APublisher>(port, topic);
    }
    std::unique_ptr<Subscriber> makeSubscriber(int port, std::string const& topic,
                                               Tally& received) override {
        return std::make_unique<ASubscriber>(port, topic, received);
    }
    std::unique_ptr<Dialogue> makeDialogue(int port, std::string const& question,
                                           std::string const& answer) override {
        return std::make_unique<ADialogue>(port, question, answer);
    }
    std::unique_ptr<Caller> makeCaller(int port) override {
        return std::make_unique<ACaller>(port);
    }
    /// Takes the texts as they come: who has no typed values reads none.
    std::unique_ptr<Subscriber> makeValueSubscriber(int port, std::string const& topic,
                                                    Document document, Tally& received) override {
        return makeSubscriber(port, valueTopic(topic, document), received);
    }
};

} // namespace bench
