#pragma once

#include "client/client_on_a_script.hpp"
#include "services/link_list.hpp"
#include "support/watched.hpp"

#include <mqtt/service_discoverer.hpp>

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

/// How long a test watches that something does not happen. A correct run never fails by it.
constexpr std::chrono::milliseconds OBSERVATION_TIME{300};
/// Longer than a run that succeeds, in seconds.
constexpr std::uint32_t SUCCESS_TIMEOUT_S = 30;
constexpr std::uint32_t NO_TIME_LIMIT = UINT32_MAX;

inline std::string const ENTITIES = "plant/entities";
inline std::string const UNKNOWN_UUID = "ffffffff-ffff-ffff-ffff-ffffffffffff";

inline Strings const IDENTIFICATION_MEMBERS{"uuid",         "manufacturer", "model",     "serial",
                                            "physicalName", "name",         "interface", "version",
                                            "location",     "contact"};

/// Different texts for all members of an identification.
inline Strings textsOf(std::string const& name) {
    Strings texts;
    for (auto const& member : IDENTIFICATION_MEMBERS) {
        texts.push_back(name + " " + member);
    }
    return texts;
}

/// The document of an identification with these texts.
inline std::string identificationOf(std::string const& name) {
    std::string document;
    for (auto const& member : IDENTIFICATION_MEMBERS) {
        document +=
            (document.empty() ? "{\"" : ", \"") + member + "\": \"" + name + " " + member + "\"";
    }
    return document + "}";
}

inline Strings textsOf(conv::Identification const& one) {
    return {one.uuid, one.manufacturer, one.model,   one.serial,   one.physicalName,
            one.name, one.interface,    one.version, one.location, one.contact};
}

/// The texts of an entity that has not answered.
inline Strings const PLACEHOLDER{UNKNOWN_UUID, "", "", "", "", "", "", "", "", ""};

inline Strings idsOf(std::vector<mqtt::Link> const& links) {
    Strings ids;
    for (auto const& link : links) {
        ids.push_back(link.id);
    }
    return ids;
}

inline std::vector<Strings> textsOf(std::vector<conv::Identification> const& entities) {
    std::vector<Strings> texts;
    for (auto const& entity : entities) {
        texts.push_back(textsOf(entity));
    }
    return texts;
}

inline bool isUnderWay(std::future<bool> const& run) {
    return run.wait_for(OBSERVATION_TIME) == std::future_status::timeout;
}

/// A discoverer with the stand-in for the broker library, which sends what the test retains.
class ADiscoverer : public AClientOnAScript {
protected:
    using Operation = support::StandIn::Operation;
    using Discoverer = mqtt::ServiceDiscovererMqtt;

    ADiscoverer() {
        connect();
        script_->setHook(Operation::SUBSCRIBE, [this](auto const& call) {
            auto const payload = retained_.read([&](auto const& all) {
                auto const found = all.find(call.topic);
                return found == all.end() ? std::nullopt : std::optional(found->second);
            });
            if (payload) {
                script_->deliver(call.topic, *payload, 0, true);
            }
            return std::optional<int>();
        });
    }
    ~ADiscoverer() override { script_->setHook(Operation::SUBSCRIBE, {}); }

    /// The message is sent to later subscriptions.
    void retain(std::string const& topic, std::string const& payload) {
        retained_.change([&](auto& all) { all[topic] = payload; });
    }
    void retainLinks(Strings const& ids) { retain(ENTITIES, listOf(ids)); }
    void retainEntity(std::string const& id) {
        retain(id + "/identification", identificationOf(id));
    }

    /// Returns when the message has been handled.
    void deliver(std::string const& topic, std::string const& payload) {
        script_->deliver(topic, payload);
        letTheStepEnd();
    }
    void answer(std::string const& id) { deliver(id + "/identification", identificationOf(id)); }

    /// A message that was being dispatched when its subscription ended.
    void answerLate(std::string const& name, int position) {
        conv::Identification identification;
        identification.name = name;
        script_->runInLoop([&](auto&) { discoverer->onMqttData(identification, false, position); });
    }
    void listLate(Strings const& ids) {
        std::vector<mqtt::Link> links;
        for (auto const& id : ids) {
            links.push_back({id});
        }
        script_->runInLoop([&](auto&) { discoverer->onMqttData(links, false, 0); });
    }

    std::future<bool> startRun(std::uint32_t timeout = SUCCESS_TIMEOUT_S,
                               bool withIdentification = true, bool waitForChange = false) {
        return std::async(std::launch::async, [=] {
            return discoverer->launchSync(timeout, withIdentification, waitForChange);
        });
    }

    /// The topics subscribed now.
    std::multiset<std::string> subscribed() const {
        std::multiset<std::string> topics;
        for (auto const& call : script_->calls()) {
            if (call.operation == Operation::SUBSCRIBE) {
                topics.insert(call.topic);
            } else if (call.operation == Operation::UNSUBSCRIBE) {
                topics.erase(call.topic);
            }
        }
        return topics;
    }

    /// Waits until that many calls have been made and have returned.
    bool waitForSubscriptions(std::size_t count) const {
        return support::eventually([&] {
            auto const calls = script_->calls(Operation::SUBSCRIBE);
            return calls.size() >= count
                   && std::all_of(calls.begin(), calls.end(),
                                  [](auto const& call) { return call.result.has_value(); });
        });
    }

    Strings links() const { return idsOf(discoverer->links()); }
    std::vector<Strings> entities() const { return textsOf(discoverer->entities()); }

    std::unique_ptr<Discoverer> discoverer = std::make_unique<Discoverer>(*client_, ENTITIES);

private:
    support::Watched<std::map<std::string, std::string>> retained_;
};
