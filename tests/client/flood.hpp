#pragma once

#include "support/broker.hpp"
#include "support/raw_peer.hpp"

#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// Publishes without end, to some topics in turn.
class Flood {
public:
    Flood(support::Broker const& broker, std::vector<std::string> topics, std::string payload)
        : topics_(std::move(topics)),
          payload_(std::move(payload)),
          peer_(broker),
          thread_([this] { run(); }) {}
    ~Flood() {
        stop_ = true;
        thread_.join();
    }
    Flood(Flood const&) = delete;
    Flood& operator=(Flood const&) = delete;

private:
    void run() {
        for (std::size_t i = 0; !stop_; ++i) {
            peer_.post(topics_[i % topics_.size()], payload_, 0);
            // No faster than the broker takes it: its memory is finite.
            if (i % 64 == 0)
                peer_.publish("pace", "", 1);
        }
    }

    std::vector<std::string> topics_;
    std::string payload_;
    std::atomic<bool> stop_{false};
    support::RawPeer peer_;
    std::thread thread_;
};
