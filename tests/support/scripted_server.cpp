#include "support/scripted_server.hpp"

#include "support/socket.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace support {

namespace {

constexpr int BACKLOG = 64;

using Lock = std::lock_guard<std::mutex>;

} // namespace

ScriptedServer::ScriptedServer(Mode mode)
    : mode_(Mode::BROKER),
      listener_(listenOn(lease_.port(), BACKLOG)),
      thread_(
          mutex_, [this] { return sockets(); }, [this] { serve(); }) {
    setMode(mode);
}

void ScriptedServer::setMode(Mode mode) {
    Lock const lock(mutex_);
    if (mode == Mode::NOT_ACCEPTING && mode_ != Mode::NOT_ACCEPTING) {
        fillBacklog();
    } else if (mode != Mode::NOT_ACCEPTING) {
        filler_.reset();
        ::listen(listener_.get(), BACKLOG);
    }
    mode_ = mode;
    thread_.wake();
}

/// With a queue for one connection and that place taken the kernel drops every further attempt,
/// and clients repeat theirs.
void ScriptedServer::fillBacklog() {
    ::listen(listener_.get(), 0);
    filler_ = startConnecting(port());
    pollfd waiting{listener_.get(), POLLIN, 0};
    ::poll(&waiting, 1, -1);
}

void ScriptedServer::setHook(Hook hook) {
    Lock const lock(mutex_);
    hook_ = std::move(hook);
}

void ScriptedServer::release() {
    Lock const lock(mutex_);
    hook_ = nullptr;
    for (Connection& connection : connections_) {
        sendAll(connection.socket, connection.keptBack);
        connection.keptBack.clear();
    }
}

bool ScriptedServer::publish(std::string const& topic, std::string const& payload, int qos,
                             bool retain) {
    Lock const lock(mutex_);
    MqttPacket packet;
    packet.topic = topic;
    packet.payload = payload;
    packet.qos = qos;
    packet.retain = retain;
    packet.mid = ++lastMid_;
    Connection const* const to = latest();
    return to && sendAll(to->socket, publishPacket(packet));
}

void ScriptedServer::drop() {
    Lock const lock(mutex_);
    if (Connection* const connection = latest()) {
        resetConnection(connection->socket);
    }
    thread_.wake();
}

std::vector<MqttPacket> ScriptedServer::received(PacketType type) const {
    std::vector<MqttPacket> result;
    for (Received const& one : received()) {
        if (one.packet.type == type) {
            result.push_back(one.packet);
        }
    }
    return result;
}

bool ScriptedServer::waitForPackets(PacketType type, std::size_t count) const {
    auto const matches = [&](Received const& one) { return one.packet.type == type; };
    return seen_.waitFor([&](Seen const& seen) {
        return std::count_if(seen.packets.begin(), seen.packets.end(), matches)
               >= static_cast<long>(count);
    });
}

std::vector<pollfd> ScriptedServer::sockets() const {
    std::vector<pollfd> sockets;
    if (mode_ != Mode::NOT_ACCEPTING) {
        sockets.push_back({listener_.get(), POLLIN, 0});
    }
    for (Connection const& connection : connections_) {
        sockets.push_back({connection.socket.get(), POLLIN, 0});
    }
    return sockets;
}

void ScriptedServer::serve() {
    acceptAll();
    for (Connection& connection : connections_) {
        readFrom(connection);
    }
    auto const closed = [](Connection const& connection) { return !connection.socket.valid(); };
    connections_.erase(std::remove_if(connections_.begin(), connections_.end(), closed),
                       connections_.end());
    seen_.change([this](Seen& seen) { seen.open = static_cast<int>(connections_.size()); });
}

void ScriptedServer::acceptAll() {
    while (mode_ != Mode::NOT_ACCEPTING) {
        FileDescriptor socket = acceptFrom(listener_);
        if (!socket.valid()) {
            return;
        }
        int const number = seen_.change([](Seen& seen) {
            ++seen.open;
            return ++seen.accepted;
        });
        connections_.push_back({number, std::move(socket), {}, {}});
    }
}

void ScriptedServer::readFrom(Connection& connection) {
    std::array<char, 4096> bytes;
    while (connection.socket.valid()) {
        ssize_t const n = ::recv(connection.socket.get(), bytes.data(), bytes.size(), 0);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        if (n <= 0) {
            connection.socket.reset();
            return;
        }
        connection.bytes.append(bytes.data(), static_cast<std::size_t>(n));
        while (connection.socket.valid() && !connection.ending) {
            auto const packet = takePacket(connection.bytes);
            if (!packet) {
                break;
            }
            handle(connection, *packet);
        }
    }
}

void ScriptedServer::handle(Connection& connection, MqttPacket const& packet) {
    Reaction const reaction = hook_ ? hook_(packet) : Reaction::ANSWER;
    // Recorded before it is answered: a client that has the answer finds the packet recorded. A
    // test that waited for the packet and then uses the server waits for the lock, and so finds
    // the packet answered.
    seen_.change([&](Seen& seen) { seen.packets.push_back({connection.number, packet}); });
    if (reaction == Reaction::ANSWER) {
        answer(connection, packet);
    } else if (reaction == Reaction::HOLD) {
        connection.keptBack += answerTo(packet);
    } else if (reaction == Reaction::DROP) {
        resetConnection(connection.socket);
    }
}

void ScriptedServer::answer(Connection& connection, MqttPacket const& packet) {
    if (mode_ == Mode::REFUSE && packet.type == PacketType::CONNECT) {
        constexpr int NOT_AUTHORIZED = 5;
        sendAll(connection.socket, connack(NOT_AUTHORIZED));
        // Closes this side only: closing a socket with unread bytes would reset the connection,
        // and the client could lose the answer.
        connection.ending = true;
        ::shutdown(connection.socket.get(), SHUT_WR);
    } else if (mode_ != Mode::SILENT) {
        sendAll(connection.socket, answerTo(packet));
    }
}

ScriptedServer::Connection* ScriptedServer::latest() {
    bool const open =
        !connections_.empty() && connections_.back().socket.valid() && !connections_.back().ending;
    return open ? &connections_.back() : nullptr;
}

} // namespace support
