#pragma once

#include "chaos/worker.hpp"

#include <memory>
#include <vector>

namespace chaos {

/// The workers of a run, and the servers that they use.
struct Services {
    explicit Services(TestBed& testBed);

    std::vector<std::shared_ptr<void>> servers;
    std::vector<std::unique_ptr<Worker>> workers;
};

/// Clients that send one request after the other; clients that are made, used a little, and
/// destroyed in any state.
void addRequestWorkers(TestBed& testBed, Services& services);
/// Clients that bind and unbind.
void addBindingWorkers(TestBed& testBed, Services& services);
/// A discoverer of a device with five entities; cleaners of topics.
void addDiscoveryWorkers(TestBed& testBed, Services& services);

inline Services::Services(TestBed& testBed) {
    addRequestWorkers(testBed, *this);
    addBindingWorkers(testBed, *this);
    addDiscoveryWorkers(testBed, *this);
}

} // namespace chaos
