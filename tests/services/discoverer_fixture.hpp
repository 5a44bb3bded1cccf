#pragma once

#include "client/client_on_a_script.hpp"
#include "mqtt/test/watched.hpp"
#include "services/link_list.hpp"

#include <mqtt/payloads.hpp>
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

/// The document of an identification; in comparisons it stands for the identification.
inline std::string documentOf(conv::Identification const& one) {
    std::string document;
    mqtt::MqttData<conv::Identification>::serialize({}, document, one);
    return document;
}
/// With a different text for each member.
inline std::string documentOf(std::string const& name) {
    return documentOf(conv::Identification{name + " uuid", name + " maker", name + " model",
                                           name + " serial", name + " physical name",
                                           name + " name", name + " interface", name + " version",
                                           name + " location", name + " contact"});
}
/// Of an entity that has not answered.
inline std::string placeholder() {
    conv::Identification unknown;
    unknown.uuid = "ffffffff-ffff-ffff-ffff-ffffffffffff";
    return documentOf(unknown);
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
    void retainEntity(std::string const& id) { retain(id + "/identification", documentOf(id)); }

    /// Returns when the message has been handled.
    void deliver(std::string const& topic, std::string const& payload) {
        script_->deliver(topic, payload);
        letTheStepEnd();
    }
    void answer(std::string const& id) { deliver(id + "/identification", documentOf(id)); }

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
        return mqtt::test::eventually([&] {
            auto const calls = script_->calls(Operation::SUBSCRIBE);
            return calls.size() >= count
                   && std::all_of(calls.begin(), calls.end(),
                                  [](auto const& call) { return call.result.has_value(); });
        });
    }

    Strings links() const {
        Strings ids;
        for (auto const& link : discoverer->links()) {
            ids.push_back(link.id);
        }
        return ids;
    }
    /// Their documents.
    Strings entities() const {
        Strings documents;
        for (auto const& entity : discoverer->entities()) {
            documents.push_back(documentOf(entity));
        }
        return documents;
    }

    std::unique_ptr<Discoverer> discoverer = std::make_unique<Discoverer>(*client_, ENTITIES);

private:
    mqtt::test::Watched<std::map<std::string, std::string>> retained_;
};
