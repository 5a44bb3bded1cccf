#pragma once

#include "chaos/number_sequence.hpp"
#include "chaos/worker.hpp"

#include <memory>
#include <string>
#include <vector>

// The workers of a run, and the servers that they use.

namespace chaos {

/// Publishes the numbers of its sequences over one proxy.
class Publisher : public Worker {
public:
    using Worker::Worker;

    /// Publishes the next number of each sequence. Only while it is paused.
    virtual void publishOnce() = 0;
    virtual bool connected() const = 0;
};

using Sequences = std::vector<NumberSequence*>;

/// @param typed as values of endpoints, not as texts
std::unique_ptr<Publisher> makePublisher(TestBed& testBed, std::string const& name, bool typed,
                                         Sequences const& sequences);
/// The number in a text that a publisher has sent, and in a typed value; 0 in all others.
std::uint64_t numberInText(std::string const& payload);
std::uint64_t numberInValue(std::string const& payload);

/// Destroyed after all workers.
class Server {
public:
    virtual ~Server() = default;
};

/// Replies with the number that it was asked.
std::unique_ptr<Server> makeNumberServer(TestBed& testBed, std::string const& topic);
/// Sends one request after the other: waits, uses a listener, cancels.
std::unique_ptr<Worker> makeRequestWorker(TestBed& testBed, std::string const& name,
                                          std::string const& topic, bool persistent,
                                          std::uint32_t firstNumber);
/// Makes a client, uses it a little, and destroys it in any state.
/// @param topic where requests are answered
std::unique_ptr<Worker> makeShortLivedClients(TestBed& testBed, std::string const& topic);

/// Grants all bindings, and has a time base.
std::unique_ptr<Server> makeBindingServer(TestBed& testBed);
std::unique_ptr<Worker> makeBindingWorker(TestBed& testBed, std::string const& name);
std::unique_ptr<Worker> makeTimeReader(TestBed& testBed);

/// Retains a list of links and their entities, again with every connection.
std::unique_ptr<Server> makeDiscoverableDevice(TestBed& testBed);
std::unique_ptr<Worker> makeDiscoveryWorker(TestBed& testBed);
/// Retains messages and removes them, each time with a new cleaner.
std::unique_ptr<Worker> makeCleaningWorker(TestBed& testBed);

} // namespace chaos
