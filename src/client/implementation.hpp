#pragma once

#include "client/broker_gate.hpp"
#include "client/communication_state.hpp"
#include "client/connection_losses.hpp"
#include "client/connection_report.hpp"
#include "client/connection_settings.hpp"
#include "client/network.hpp"
#include "client/network_turn.hpp"
#include "client/socket/socket_tuning.hpp"
#include "client/subscriptions.hpp"
#include "client/unsubscription_waits.hpp"
#include "client/worker.hpp"
#include "common/endpoint_report.hpp"
#include "common/workers_counter.hpp"
#include "mqtt/client.hpp"

#include <atomic>
#include <cstddef>

namespace mqtt {

/// The parts of a client. Each works on some of the client's members and on parts above it.
///
/// docs/architecture.md has the order of the locks. The broker library calls back with locks of its
/// own held, none of which it takes when we publish, subscribe or unsubscribe: so a callback may
/// wait for any lock of ours.
struct MqttClient::Implementation {
    explicit Implementation(MqttClient& client);

    /// While no connection is wanted.
    Error set(ConnectionOptions const& options);
    static int keyPassword(char* buffer, int size, int writing, void* handle);

    ConnectionReport report;
    EndpointReport endpointReport;
    ConnectionSettings settings;
    SocketTuning tuning;
    ConnectionLosses losses;
    BrokerGate gate;
    NetworkTurn turn;
    Network network;
    CommunicationState state;
    Subscriptions subscriptions;
    UnsubscriptionWaits unsubscriptionWaits;
    Worker worker;
    std::atomic<std::size_t> maxPayloadToReceive{QueueLimits::NO_LIMIT};
    WorkersCounter received;
    WorkersCounter receivedBytes;
    WorkersCounter receivedDropped;
    Topic receivedTopic; ///< worker: of the message under way; kept between messages for its memory
};

} // namespace mqtt
