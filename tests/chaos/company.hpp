#pragma once

#include "chaos/bindings.hpp"
#include "chaos/discoveries.hpp"
#include "chaos/party.hpp"
#include "chaos/place.hpp"
#include "chaos/publisher.hpp"
#include "chaos/requests.hpp"
#include "chaos/stream.hpp"
#include "chaos/watcher.hpp"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace chaos {

/// Everybody at the place.
class Company {
public:
    explicit Company(Place& place);
    ~Company();
    Company(Company const&) = delete;
    Company& operator=(Company const&) = delete;

    void work();
    /// After a storm, everything being up again: all come to rest, what must have arrived has
    /// arrived, and everybody proves that he still works.
    void settle();

private:
    Stream* addText(std::string const& name, Manner manner);
    Stream* addValue(std::string const& name, Manner manner);
    void addPublishers();
    void addWatchers();
    void addServices();

    void restAll();
    void awaitConnections();
    void awaitMarkers();
    bool allHaveSeenAll(std::string* whoHasNot) const;
    void checkRetained();
    void must(bool holds, std::string const& what);

    Place& place_;
    std::vector<std::unique_ptr<Stream>> streams_;
    std::vector<Stream*> texts_;
    std::vector<Stream*> values_;
    std::vector<std::unique_ptr<Watcher>> watchers_;
    std::vector<std::unique_ptr<Publisher>> publishers_;
    std::vector<std::unique_ptr<Answerer>> answerers_;
    std::unique_ptr<Host> host_;
    std::unique_ptr<Device> device_;
    std::vector<std::unique_ptr<Party>> parties_; ///< but the publishers
};

} // namespace chaos
