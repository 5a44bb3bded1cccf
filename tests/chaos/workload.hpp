#pragma once

#include "chaos/topic_monitor.hpp"
#include "chaos/workers.hpp"

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
    void addPublisher(std::string const& name, std::vector<Delivery> const& deliveries);
    void waitForConnections();
    void waitForLastNumbers();
    std::string missingTopics() const;
    void checkRetainedValues();

    TestBed& testBed_;
    std::vector<std::unique_ptr<NumberSequence>> sequences_;
    std::vector<std::unique_ptr<TopicMonitor>> monitors_;
    Services services_;
    std::vector<std::unique_ptr<Publisher>> publishers_;
    std::vector<Worker*> workers_; ///< all, publishers included
};

} // namespace chaos
