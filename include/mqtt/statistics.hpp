#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace mqtt {

/// What a client has done since it was made. Counters never go back.
///
/// Taken by `MqttClient::statistics`. Counters that belong together may be apart by what happens at
/// that moment.
struct Statistics {
    /// Publications, each counted once, by why they were not or will not be delivered.
    struct Dropped {
        std::uint64_t rejected = 0;   ///< at a limit of the queue: `publish` has returned NO_MEMORY
        std::uint64_t oldest = 0;     ///< at a limit of the queue, to make room
        std::uint64_t superseded = 0; ///< by a newer publication of the same topic
        std::uint64_t tooLarge = 0;   ///< more than `ConnectionOptions::maxPayloadToSend`
        std::uint64_t givenUp = 0;    ///< the broker closed one connection after the other
    };

    std::uint64_t sent = 0;      ///< publications handed to the broker library
    std::uint64_t sentBytes = 0; ///< of their payloads
    Dropped dropped;
    /// Publications that wait for a connection, or for a broker that does not read.
    std::size_t queued = 0;

    std::uint64_t received = 0;        ///< messages for which a subscriber was looked for
    std::uint64_t receivedBytes = 0;   ///< of their payloads
    std::uint64_t receivedDropped = 0; ///< larger than the maximum, or there was no memory

    /// Messages that have reached a typed endpoint and have not changed it, requests and replies
    /// among them.
    struct DroppedDocuments {
        std::uint64_t unreadable = 0; ///< reading has thrown an exception
        std::uint64_t noMemory = 0;   ///< reading has thrown std::bad_alloc
    };
    DroppedDocuments droppedDocuments;

    /// By the broker; the same subscription again with each connection.
    std::uint64_t subscriptionsRefused = 0;

    /// Of the request clients that use this client, those of the services among them. A request
    /// that is cancelled is only made.
    struct Requests {
        std::uint64_t made = 0;     ///< that are sent or queued
        std::uint64_t replied = 0;  ///< by a server, with whatever code
        std::uint64_t timedOut = 0; ///< their time was over before there was a reply
    };
    Requests requests;

    std::uint64_t connections = 0;   ///< that the broker has accepted
    std::uint64_t reconnections = 0; ///< those among them that followed a loss

    /// When the worker ended a network step last. With a connection there is one each second at
    /// least, unless the client is paused, or a subscriber or listener keeps the worker: its calls
    /// are part of a step. While the client tries to connect there may be none for minutes.
    std::chrono::steady_clock::time_point lastNetworkStep{};
};

} // namespace mqtt
