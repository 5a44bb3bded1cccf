#pragma once

#include "chaos/topic_monitor.hpp"
#include "chaos/workers.hpp"

#include <memory>
#include <string>
#include <vector>

namespace chaos {

/// All workers, servers and monitors of a run.
class Workload {
public:
    explicit Workload(TestBed& testBed);
    ~Workload();
    Workload(Workload const&) = delete;
    Workload& operator=(Workload const&) = delete;

    void start();
    /// After the faults: pauses all workers, checks that all has arrived that must, and that each
    /// worker still works.
    void pauseAndVerify();

private:
    NumberSequence* add(Sequences& group, std::string const& topic, Delivery delivery);
    void addPublishers();
    void addMonitors();
    void addServices();

    void pause();
    void waitForConnections();
    void waitForLastNumbers();
    std::string missingTopics() const;
    void checkRetainedValues();

    TestBed& testBed_;
    std::vector<std::unique_ptr<NumberSequence>> sequences_;
    Sequences texts_;
    Sequences values_;
    std::vector<std::unique_ptr<TopicMonitor>> monitors_;
    std::vector<std::unique_ptr<Server>> servers_;
    std::vector<std::unique_ptr<Worker>> workers_; ///< publishers included
    std::vector<Publisher*> publishers_;
};

} // namespace chaos
