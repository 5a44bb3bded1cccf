#pragma once

#include "chaos/worker.hpp"

#include <functional>
#include <memory>
#include <vector>

namespace chaos {

/// The workers of a run, and the servers that they use.
struct Services {
    std::vector<std::shared_ptr<void>> servers;
    std::vector<std::unique_ptr<Worker>> workers;
};

/// Publishers of numbered values, and subscribers that check what arrives.
/// @return checks, after the faults and while all workers are paused, that all clients are
/// connected
///         again, and that the last values arrive and are retained. To be destroyed before the
///         workers.
std::function<void()> addPublishers(TestBed& testBed, Services& services);
/// Clients that send one request after the other; clients that are made, used a little, and
/// destroyed in any state.
void addRequestWorkers(TestBed& testBed, Services& services);
/// Clients that bind and unbind.
void addBindingWorkers(TestBed& testBed, Services& services);

/// All that a run does beside the faults.
class Workload {
public:
    explicit Workload(TestBed& testBed)
        : testBed_(testBed), verifyNumbers_(addPublishers(testBed, services_)) {
        addRequestWorkers(testBed, services_);
        addBindingWorkers(testBed, services_);
    }
    ~Workload() {
        pause();
        callAll(&Worker::end);
    }
    Workload(Workload const&) = delete;
    Workload& operator=(Workload const&) = delete;

    void start() { callAll(&Worker::start); }
    /// After the faults: pauses all workers, checks that all has arrived that must, and that each
    /// worker still works.
    void pauseAndVerify() {
        pause();
        callAll(&Worker::waitUntilPaused);
        verifyNumbers_();
        callAll(&Worker::verify);
        testBed_.brokerIsKilled = false;
    }

private:
    /// All at once, before a wait for the first one.
    void pause() { callAll(&Worker::pause); }
    void callAll(void (Worker::*operation)()) {
        for (auto const& worker : services_.workers) {
            (*worker.*operation)();
        }
    }

    TestBed& testBed_;
    Services services_;
    std::function<void()> verifyNumbers_;
};

} // namespace chaos
