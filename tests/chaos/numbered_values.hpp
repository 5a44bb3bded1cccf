#pragma once

#include "chaos/number_sequence.hpp"
#include "chaos/worker.hpp"

#include <memory>
#include <string>
#include <vector>

namespace chaos {

class Publisher;
class TopicMonitor;

/// Publishers of numbered values, and subscribers that check what arrives.
class NumberedValues {
public:
    /// Adds the publishers to the workers. To be destroyed before them.
    NumberedValues(TestBed& testBed, std::vector<std::unique_ptr<Worker>>& workers);
    ~NumberedValues();
    NumberedValues(NumberedValues const&) = delete;
    NumberedValues& operator=(NumberedValues const&) = delete;

    /// After the faults, while all workers are paused: that all are connected again, and that the
    /// last values arrive and are retained.
    void verify();

private:
    void waitForConnections();
    void waitForLastNumbers();
    std::string missingTopics() const;
    void checkRetainedValues();

    TestBed& testBed_;
    std::vector<Publisher*> publishers_;
    std::vector<NumberSequence*> sequences_; ///< of all publishers
    std::vector<std::unique_ptr<TopicMonitor>> monitors_;
};

} // namespace chaos
