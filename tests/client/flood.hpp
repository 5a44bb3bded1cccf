#pragma once

#include "mqtt/test/broker.hpp"
#include "mqtt/test/raw_peer.hpp"

#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// Publishes some messages in turn, without end, on a thread of its own.
class Flood {
public:
    struct Post {
        std::string topic;
        std::string payload;
    };

    Flood(mqtt::test::Broker const& broker, std::vector<Post> posts)
        : posts_(std::move(posts)), peer_(broker), thread_([this] { run(); }) {}
    ~Flood() {
        stop_ = true;
        thread_.join();
    }
    Flood(Flood const&) = delete;
    Flood& operator=(Flood const&) = delete;

private:
    void run() {
        for (std::size_t i = 0; !stop_; ++i) {
            auto const& post = posts_[i % posts_.size()];
            peer_.post(post.topic, post.payload, 0);
            // The broker's memory is finite: no faster than the broker reads.
            if (i % 64 == 0) {
                peer_.publish("pace", "", 1);
            }
        }
    }

    std::vector<Post> posts_;
    std::atomic<bool> stop_{false};
    mqtt::test::RawPeer peer_;
    std::thread thread_;
};
