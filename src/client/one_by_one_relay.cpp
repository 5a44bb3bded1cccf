#include "client/one_by_one_relay.hpp"

#include "client/packet_header.hpp"
#include "mqtt/client.hpp"

#include <algorithm>
#include <array>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace mqtt {

namespace {

constexpr int OK = static_cast<int>(MqttClient::Error::SUCCESS);

/// What the library sends again at the beginning of a connection.
constexpr int LIBRARY_WINDOW = 20;
constexpr std::chrono::seconds ANSWER_TIMEOUT{5};
/// Enough for a topic of the longest kind and what stands before and after it.
constexpr std::size_t BUFFER_SIZE = 131'072;

using Chunk = std::array<char, 16'384>;

} // namespace

void OwnDescriptor::close() {
    if (fd_ >= 0) {
        ::close(std::exchange(fd_, -1));
    }
}

std::unique_ptr<OneByOneRelay> OneByOneRelay::begin(mosqpp::mosquittopp& library) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return nullptr;
    }
    OwnDescriptor const librarysEnd(ends[0]);
    OwnDescriptor end(ends[1]);
    OwnDescriptor broker(::fcntl(library.socket(), F_DUPFD_CLOEXEC, 0));
    if (broker.get() < 0) {
        return nullptr;
    }
    auto relay = std::make_unique<OneByOneRelay>(library, std::move(broker), std::move(end));
    ::dup3(librarysEnd.get(), library.socket(), O_CLOEXEC); // needs no further descriptor
    return relay;
}

OneByOneRelay::OneByOneRelay(mosqpp::mosquittopp& library, OwnDescriptor broker, OwnDescriptor end)
    : library_(library),
      broker_(std::move(broker)),
      end_(std::move(end)),
      deadline_(Clock::now() + ANSWER_TIMEOUT) {}

int OneByOneRelay::step(std::chrono::milliseconds longestWait) {
    int result = passToBroker();
    if (result == OK && library_.socket() >= 0 && !isDone()) {
        waitForBroker(longestWait);
        result = passToLibrary();
    }
    if (result == OK && library_.socket() >= 0 && !isLost_) {
        result = passToBroker();
    }
    return result == OK ? library_.loop_misc() : result;
}

bool OneByOneRelay::isDone() const {
    bool const isOver = publications_ > LIBRARY_WINDOW || Clock::now() >= deadline_;
    bool const hasNoMore = isAccepted_ && !unanswered_ && !library_.want_write();
    return !isLost_ && fromLibrary_.empty() && (isOver || hasNoMore);
}

void OneByOneRelay::giveBack() {
    ::dup3(broker_.get(), library_.socket(), O_CLOEXEC);
}

bool OneByOneRelay::acknowledgeUnanswered() {
    bool const isBetweenPackets = answer_.empty() && answerRest_ == 0;
    if (!unanswered_ || !isBetweenPackets) {
        return false;
    }
    auto const high = static_cast<char>(unanswered_->messageId >> 8);
    auto const low = static_cast<char>(unanswered_->messageId & 0xFF);
    std::string const puback{'\x40', 2, high, low};
    std::string const pubrecAndPubcomp{'\x50', 2, high, low, '\x70', 2, high, low};
    auto const& answer = unanswered_->qos == 1 ? puback : pubrecAndPubcomp;
    ::send(end_.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    return letLibraryRead() == OK;
}

int OneByOneRelay::closeConnection() {
    end_.close();
    return library_.socket() < 0 ? OK : library_.loop_read(1);
}

void OneByOneRelay::sendDisconnect() {
    constexpr std::array<char, 2> disconnect{'\xE0', 0};
    if (passing_ == 0) {
        ::send(broker_.get(), disconnect.data(), disconnect.size(), MSG_NOSIGNAL);
    }
}

// From the library to the broker

int OneByOneRelay::passToBroker() {
    bool hasPassed = true;
    while (hasPassed) {
        if (library_.want_write()) {
            int const result = library_.loop_write(1);
            if (result == OK && library_.socket() < 0) {
                sendDisconnect(); // as the library does before it closes its socket
            }
            if (library_.socket() < 0) {
                return result;
            }
        }
        bool const hasReceived = receiveFromLibrary();
        hasPassed = sendToBroker() || hasReceived;
    }
    return OK;
}

bool OneByOneRelay::receiveFromLibrary() {
    Chunk bytes;
    if (fromLibrary_.size() >= BUFFER_SIZE) {
        return false;
    }
    auto const size = ::recv(end_.get(), bytes.data(), bytes.size(), 0);
    if (size > 0) {
        fromLibrary_.append(bytes.data(), static_cast<std::size_t>(size));
    }
    return size > 0;
}

bool OneByOneRelay::sendToBroker() {
    if (passing_ == 0 && !beginPacket()) {
        return false;
    }
    auto const size = std::min(passing_, fromLibrary_.size());
    auto const sent = ::send(broker_.get(), fromLibrary_.data(), size, MSG_NOSIGNAL);
    if (sent <= 0) {
        return false; // a closed connection is noticed when it is read
    }
    fromLibrary_.erase(0, static_cast<std::size_t>(sent));
    passing_ -= static_cast<std::size_t>(sent);
    return true;
}

/// @return false if the next packet has to wait, or is not known well enough yet
bool OneByOneRelay::beginPacket() {
    auto const header = PacketHeader::of(fromLibrary_);
    if (!header) {
        return false;
    }
    if (header->type == PacketType::PUBLISH && header->qos > 0
        && !beginPublication(fromLibrary_, header->size, header->packetSize(), header->qos)) {
        return false;
    }
    passing_ = header->packetSize();
    return true;
}

bool OneByOneRelay::beginPublication(std::string_view packet, std::size_t start,
                                     std::size_t packetSize, int qos) {
    constexpr std::size_t NUMBER = 2;
    bool const isOneAtATime = publications_ <= LIBRARY_WINDOW && Clock::now() < deadline_;
    if ((unanswered_ && isOneAtATime) || packet.size() < start + NUMBER) {
        return false;
    }
    std::size_t const topicSize = numberAt(packet, start);
    std::size_t const end = start + NUMBER + topicSize;
    if (packet.size() < end + NUMBER) {
        return false;
    }
    ++publications_;
    unanswered_ = UnansweredPublication{numberAt(packet, end), qos,
                                        std::string(packet.substr(start + NUMBER, topicSize)),
                                        packetSize - end - NUMBER};
    return true;
}

// From the broker to the library

void OneByOneRelay::waitForBroker(std::chrono::milliseconds longestWait) const {
    pollfd broker{broker_.get(), POLLIN, 0};
    if (passing_ > 0 && !fromLibrary_.empty()) {
        broker.events |= POLLOUT;
    }
    ::poll(&broker, 1, static_cast<int>(longestWait.count()));
}

int OneByOneRelay::passToLibrary() {
    Chunk bytes;
    int result = OK;
    while (result == OK && !isLost_) {
        auto const size = ::recv(broker_.get(), bytes.data(), bytes.size(), 0);
        if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
            return OK;
        }
        isLost_ = size <= 0;
        if (!isLost_) {
            auto const length = static_cast<std::size_t>(size);
            lookForAnswers({bytes.data(), length});
            // There is room for it: the library has read all that came before.
            ::send(end_.get(), bytes.data(), length, MSG_NOSIGNAL);
            result = letLibraryRead();
        }
    }
    return result;
}

int OneByOneRelay::letLibraryRead() {
    int result = OK;
    int unread = 1;
    while (result == OK && unread > 0 && library_.socket() >= 0) {
        result = library_.loop_read(1);
        bool const isOpen = result == OK && library_.socket() >= 0;
        if (!isOpen || ::ioctl(library_.socket(), FIONREAD, &unread) != 0) {
            unread = 0;
        }
    }
    return result;
}

void OneByOneRelay::lookForAnswers(std::string_view bytes) {
    while (!bytes.empty()) {
        auto const skipped = std::min(answerRest_, bytes.size());
        answerRest_ -= skipped;
        bytes.remove_prefix(skipped);
        if (!bytes.empty()) {
            answer_ += bytes.front();
            bytes.remove_prefix(1);
            handleAnswer(answer_);
        }
    }
}

void OneByOneRelay::handleAnswer(std::string_view packet) {
    auto const header = PacketHeader::of(packet);
    if (!header) {
        return;
    }
    bool const isAnswer = header->type == PacketType::PUBACK || header->type == PacketType::PUBREC;
    if (isAnswer && header->bodySize >= 2) {
        if (packet.size() < header->size + 2) {
            return;
        }
        if (unanswered_ && unanswered_->messageId == numberAt(packet, header->size)) {
            unanswered_.reset();
        }
    }
    isAccepted_ = isAccepted_ || header->type == PacketType::CONNACK;
    answerRest_ = header->packetSize() - packet.size();
    answer_.clear();
}

} // namespace mqtt
