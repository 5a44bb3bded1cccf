#include "chaos/company.hpp"

#include "chaos/text.hpp"
#include "chaos/visitors.hpp"

#include "support/eventually.hpp"
#include "support/raw_peer.hpp"
#include "support/timeout_factor.hpp"

#include <algorithm>

namespace chaos {

namespace {

constexpr std::chrono::seconds NEVER{90 * support::TIMEOUT_FACTOR};
constexpr char const* ASKED[] = {"chaos/asked/a", "chaos/asked/b"};

} // namespace

Company::Company(Place& place) : place_(place) {
    addPublishers();
    addWatchers();
    addServices();
}

Company::~Company() {
    for (auto const& party : parties_) {
        party->rest();
    }
}

Stream* Company::addText(std::string const& name, Manner manner) {
    streams_.push_back(std::make_unique<Stream>("chaos/text/" + name, manner));
    texts_.push_back(streams_.back().get());
    return texts_.back();
}

Stream* Company::addValue(std::string const& name, Manner manner) {
    streams_.push_back(std::make_unique<Stream>("chaos/value/" + name, manner));
    values_.push_back(streams_.back().get());
    return values_.back();
}

void Company::addPublishers() {
    std::vector<Stream*> const states{addText("persistent-2-state", {2, true, true}),
                                      addText("persistent-2-event", {2, true, false}),
                                      addText("persistent-1-state", {1, true, true})};
    std::vector<Stream*> const events{addText("persistent-2-busy", {2, true, true})};
    std::vector<Stream*> const passing{addText("clean-2-state", {2, false, true}),
                                       addText("clean-1-state", {1, false, true}),
                                       addText("clean-0-event", {0, false, false})};
    std::vector<Stream*> const values{addValue("persistent", {2, true, true})};
    std::vector<Stream*> const passingValues{addValue("clean", {2, false, true})};
    publishers_.push_back(std::make_unique<TextPublisher>(place_, "states", true, states));
    publishers_.push_back(std::make_unique<TextPublisher>(place_, "events", true, events));
    publishers_.push_back(std::make_unique<TextPublisher>(place_, "passing", false, passing));
    publishers_.push_back(std::make_unique<ValuePublisher>(place_, "values", true, values));
    publishers_.push_back(
        std::make_unique<ValuePublisher>(place_, "passing values", false, passingValues));
}

void Company::addWatchers() {
    auto const add = [this](std::string const& name, Post const& post) {
        watchers_.push_back(std::make_unique<Watcher>(place_, name, post, texts_, values_));
    };
    int const straight = place_.broker.port();
    add("steady watcher", {straight, true, false, false});
    add("steady watcher by pattern", {straight, true, true, true});
    add("watcher", {place_.newLine().port(), false, false, true});
    add("persistent watcher", {place_.newLine().port(), false, true, false});
}

void Company::addServices() {
    for (char const* const topic : ASKED) {
        answerers_.push_back(std::make_unique<Answerer>(place_, topic));
    }
    host_ = std::make_unique<Host>(place_);
    device_ = std::make_unique<Device>(place_);
    auto const add = [this](auto party) { parties_.push_back(std::move(party)); };
    add(std::make_unique<Asker>(place_, "asker", ASKED[0], false, 1));
    add(std::make_unique<Asker>(place_, "persistent asker", ASKED[0], true, 1000000000));
    add(std::make_unique<Asker>(place_, "other asker", ASKED[1], false, 1));
    add(std::make_unique<Guest>(place_, "guest"));
    add(std::make_unique<Guest>(place_, "other guest"));
    add(std::make_unique<ClockReader>(place_, "clock reader"));
    add(std::make_unique<Explorer>(place_, "explorer"));
    add(std::make_unique<Sweeper>(place_, "sweeper"));
    add(std::make_unique<Visitors>(place_, "visitors", ASKED[1]));
}

void Company::work() {
    for (auto const& publisher : publishers_) {
        publisher->work();
    }
    for (auto const& party : parties_) {
        party->work();
    }
}

void Company::settle() {
    restAll();
    awaitConnections();
    awaitMarkers();
    checkRetained();
    for (auto const& party : parties_) {
        party->prove();
    }
    place_.kills = false;
}

void Company::restAll() {
    for (auto const& publisher : publishers_) {
        publisher->rest();
    }
    for (auto const& party : parties_) {
        party->rest();
    }
    for (auto const& publisher : publishers_) {
        publisher->waitForRest();
    }
    for (auto const& party : parties_) {
        party->waitForRest();
    }
}

void Company::awaitConnections() {
    for (auto const& publisher : publishers_) {
        must(support::eventually([&] { return publisher->connected(); }, NEVER),
             publisher->name() + " does not get connected any more");
    }
    for (auto const& watcher : watchers_) {
        must(support::eventually([&] { return watcher->connected(); }, NEVER),
             watcher->name() + " does not get connected any more");
    }
}

/// Again and again: a cut that was ordered in the storm may still come, and a subscriber that is
/// connected may not be subscribed yet.
void Company::awaitMarkers() {
    std::string whoHasNot;
    auto const end = std::chrono::steady_clock::now() + NEVER;
    do {
        for (auto const& publisher : publishers_) {
            publisher->publishOnce();
        }
        if (support::eventually([&] { return allHaveSeenAll(nullptr); }, std::chrono::seconds(2))) {
            return;
        }
    } while (std::chrono::steady_clock::now() < end);
    if (!allHaveSeenAll(&whoHasNot)) {
        place_.findings.breach("a subscription is lost, or a publisher dumb: " + whoHasNot);
    }
}

bool Company::allHaveSeenAll(std::string* whoHasNot) const {
    for (auto const& watcher : watchers_) {
        for (auto const& stream : streams_) {
            if (watcher->hasSeen(*stream, stream->published())) {
                continue;
            }
            if (whoHasNot != nullptr) {
                *whoHasNot = watcher->name() + " misses the last of " + stream->topic();
            }
            return false;
        }
    }
    return true;
}

void Company::checkRetained() {
    auto const isLast = [this](Stream const& stream, std::string const& payload) {
        if (std::find(texts_.begin(), texts_.end(), &stream) != texts_.end()) {
            return numberIn(payload) == stream.published();
        }
        conv::CommunicationStatus value;
        mqtt::MqttData<conv::CommunicationStatus>::deserialize({}, payload, false, value);
        return value.since.seconds == static_cast<double>(stream.published());
    };
    for (auto const& stream : streams_) {
        if (!stream->manner().retained) {
            continue;
        }
        auto const found = support::allRetained(place_.broker, stream->topic() + "/#");
        must(found.size() == 1 && isLast(*stream, found.front().payload),
             stream->topic() + ": the retained value is not the last one");
        place_.findings.count("retained values looked at");
    }
}

void Company::must(bool holds, std::string const& what) {
    if (!holds) {
        place_.findings.breach(what);
    }
}

} // namespace chaos
