#include "support/scripted_server.hpp"

#include "support/socket.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

namespace support {

namespace {

constexpr int BACKLOG = 64;

std::string answerTo(MqttPacket const& packet) {
    switch (packet.type) {
    case PacketType::CONNECT:
        return connack(0);
    case PacketType::PUBLISH:
        return packet.qos == 0   ? std::string()
               : packet.qos == 1 ? acknowledgement(PacketType::PUBACK, packet.mid)
                                 : acknowledgement(PacketType::PUBREC, packet.mid);
    case PacketType::PUBREC:
        return acknowledgement(PacketType::PUBREL, packet.mid);
    case PacketType::PUBREL:
        return acknowledgement(PacketType::PUBCOMP, packet.mid);
    case PacketType::SUBSCRIBE:
        return suback(packet.mid, std::vector<std::uint8_t>(packet.topics.size(), 0));
    case PacketType::UNSUBSCRIBE:
        return acknowledgement(PacketType::UNSUBACK, packet.mid);
    case PacketType::PINGREQ:
        return pingresp();
    default:
        return {};
    }
}

} // namespace

ScriptedServer::ScriptedServer(Mode mode)
    : mode_(mode),
      listener_(listenOn(lease_.port(), mode == Mode::NOT_ACCEPTING ? 0 : BACKLOG)),
      wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (mode == Mode::NOT_ACCEPTING) {
        fillBacklog();
    }
    thread_ = std::thread([this] { serve(); });
}

ScriptedServer::~ScriptedServer() {
    stop_ = true;
    eventfd_write(wakeUp_.get(), 1);
    thread_.join();
}

void ScriptedServer::setMode(Mode mode) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (mode == Mode::NOT_ACCEPTING && mode_ != Mode::NOT_ACCEPTING) {
            fillBacklog();
        } else if (mode != Mode::NOT_ACCEPTING && mode_ == Mode::NOT_ACCEPTING) {
            emptyBacklog();
        }
        mode_ = mode;
    }
    eventfd_write(wakeUp_.get(), 1);
}

/// With a queue for one connection and that place taken the kernel drops every further attempt,
/// and clients try to connect again and again.
void ScriptedServer::fillBacklog() {
    ::listen(listener_.get(), 0);
    auto const full = [this] { return waitingConnections(listener_) > 0; };
    if (!full()) {
        filler_ = startConnecting(port());
    }
    if (!eventually(full)) {
        throw std::runtime_error("the queue of connections does not fill");
    }
}

void ScriptedServer::emptyBacklog() {
    if (filler_.valid()) {
        acceptFrom(listener_); // the filler: the queue has no room for another one
        filler_.reset();
    }
    ::listen(listener_.get(), BACKLOG);
}

void ScriptedServer::release() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto const& [number, bytes] : keptBack_) {
        for (auto const& connection : connections_) {
            if (connection->number == number && connection->socket.valid()) {
                sendAll(connection->socket, bytes);
            }
        }
    }
    keptBack_.clear();
    held_.clear();
}

bool ScriptedServer::publish(std::string const& topic, std::string const& payload, int qos,
                             bool retain) {
    std::lock_guard<std::mutex> lock(mutex_);
    Connection* const to = latest();
    return to
           && sendAll(to->socket, publishPacket(topic, payload, qos, retain,
                                                static_cast<std::uint16_t>(++lastMid_)));
}

bool ScriptedServer::drop() {
    std::lock_guard<std::mutex> lock(mutex_);
    Connection* const connection = latest();
    if (connection) {
        reset(*connection);
    }
    eventfd_write(wakeUp_.get(), 1);
    return connection != nullptr;
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

bool ScriptedServer::waitForPackets(PacketType type, std::size_t count,
                                    std::chrono::milliseconds deadline) const {
    auto const matches = [&](Received const& one) { return one.packet.type == type; };
    auto const enough = [&](History const& all) {
        return std::count_if(all.begin(), all.end(), matches) >= static_cast<long>(count);
    };
    return waitFor(enough, deadline);
}

void ScriptedServer::serve() {
    while (!stop_) {
        waitForEvents();
        std::unique_lock<std::mutex> lock(mutex_);
        acceptAll();
        lock.unlock();
        // Only this thread adds or removes connections. It reads from them without the lock, so
        // that a hook may use the server.
        for (auto const& connection : connections_) {
            readFrom(*connection);
        }
        removeClosed();
    }
}

void ScriptedServer::waitForEvents() {
    std::vector<pollfd> sockets{{wakeUp_.get(), POLLIN, 0}};
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (mode_ != Mode::NOT_ACCEPTING) {
            sockets.push_back({listener_.get(), POLLIN, 0});
        }
        for (auto const& connection : connections_) {
            sockets.push_back({connection->socket.get(), POLLIN, 0});
        }
    }
    ::poll(sockets.data(), sockets.size(), -1);
    eventfd_t count = 0;
    eventfd_read(wakeUp_.get(), &count);
}

void ScriptedServer::acceptAll() {
    while (mode_ != Mode::NOT_ACCEPTING) {
        FileDescriptor socket = acceptFrom(listener_);
        if (!socket.valid()) {
            return;
        }
        auto connection = std::make_unique<Connection>();
        connection->socket = std::move(socket);
        connection->number = seen_.change([](Seen& seen) {
            ++seen.open;
            return ++seen.accepted;
        });
        connections_.push_back(std::move(connection));
    }
}

void ScriptedServer::readFrom(Connection& connection) {
    std::array<char, 4096> bytes;
    std::unique_lock<std::mutex> lock(mutex_);
    while (connection.socket.valid()) {
        ssize_t const n = ::recv(connection.socket.get(), bytes.data(), bytes.size(), 0);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        if (n <= 0) {
            connection.socket.reset();
            return;
        }
        connection.reader.append(bytes.data(), static_cast<std::size_t>(n));
        lock.unlock();
        while (auto const packet = connection.ending ? std::nullopt : connection.reader.next()) {
            handle(connection, *packet);
        }
        lock.lock();
    }
}

void ScriptedServer::handle(Connection& connection, MqttPacket const& packet) {
    Reaction const reaction = reactionTo(packet);
    // Recorded before it is answered, in one step: a client that has the answer finds the packet
    // recorded, and a test that waited for the packet and then uses the server finds it answered.
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.change([&](Seen& seen) { seen.packets.push_back({connection.number, packet}); });
    if (reaction == Reaction::ANSWER) {
        answer(connection, packet);
    } else if (reaction == Reaction::DROP) {
        reset(connection);
    }
}

ScriptedServer::Reaction ScriptedServer::reactionTo(MqttPacket const& packet) {
    Hook hook;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (Drop& drop : drops_) {
            if (drop.type == packet.type && drop.left > 0 && --drop.left == 0) {
                return Reaction::DROP;
            }
        }
        hook = hook_;
    }
    return hook ? hook(packet) : Reaction::ANSWER;
}

void ScriptedServer::answer(Connection& connection, MqttPacket const& packet) {
    if (mode_ == Mode::SILENT) {
        return;
    }
    if (mode_ == Mode::REFUSE && packet.type == PacketType::CONNECT) {
        sendAll(connection.socket, connack(refusal_));
        // Closes this side only: closing a socket with unread bytes would reset the connection,
        // and the client could lose the answer.
        connection.ending = true;
        ::shutdown(connection.socket.get(), SHUT_WR);
        return;
    }
    std::string const bytes = answerTo(packet);
    if (std::find(held_.begin(), held_.end(), packet.type) != held_.end()) {
        keptBack_.emplace_back(connection.number, bytes);
    } else if (!bytes.empty()) {
        sendAll(connection.socket, bytes);
    }
}

void ScriptedServer::reset(Connection& connection) {
    connection.ending = true;
    resetConnection(connection.socket);
}

void ScriptedServer::removeClosed() {
    std::lock_guard<std::mutex> lock(mutex_);
    auto const closed = [](auto const& connection) { return !connection->socket.valid(); };
    connections_.erase(std::remove_if(connections_.begin(), connections_.end(), closed),
                       connections_.end());
    seen_.change([this](Seen& seen) { seen.open = static_cast<int>(connections_.size()); });
}

ScriptedServer::Connection* ScriptedServer::latest() {
    bool const open = !connections_.empty() && connections_.back()->socket.valid()
                      && !connections_.back()->ending;
    return open ? connections_.back().get() : nullptr;
}

} // namespace support
