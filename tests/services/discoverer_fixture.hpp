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

/// In comparisons, for an entity that has not answered.
inline std::string const UNKNOWN = "ffffffff-ffff-ffff-ffff-ffffffffffff";

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
    void retainEntity(std::string const& id) { retain(topicOf(id), identificationOf(id)); }

    /// Returns when the message has been handled.
    void deliver(std::string const& topic, std::string const& payload) {
        script_->deliver(topic, payload);
        letTheStepEnd();
    }
    void answer(std::string const& id) { deliver(topicOf(id), identificationOf(id)); }

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
    /// Their names, and `UNKNOWN`.
    Strings entities() const {
        Strings names;
        for (auto const& entity : discoverer->entities()) {
            names.push_back(entity.uuid == UNKNOWN ? UNKNOWN : entity.name);
        }
        return names;
    }

    std::unique_ptr<Discoverer> discoverer = std::make_unique<Discoverer>(*client_, ENTITIES);

private:
    static std::string topicOf(std::string const& id) { return id + "/identification"; }
    static std::string identificationOf(std::string const& id) {
        return R"({"name": ")" + id + "\"}";
    }

    mqtt::test::Watched<std::map<std::string, std::string>> retained_;
};
