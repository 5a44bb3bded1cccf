#pragma once

#include "mqtt/mosquittopp.hpp"

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace mqtt {

/// A file descriptor that is closed with its object.
class OwnDescriptor {
public:
    explicit OwnDescriptor(int fd) : fd_(fd) {}
    OwnDescriptor(OwnDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    OwnDescriptor& operator=(OwnDescriptor&&) = delete;
    ~OwnDescriptor() { close(); }

    int get() const { return fd_; }
    void close();

private:
    int fd_;
};

/// A publication that was sent and not answered.
struct UnansweredPublication {
    int messageId = 0;
    int qos = 0;
    std::string topic;
    std::size_t payloadSize = 0;
};

/// Stands between the broker library and the broker at the beginning of a connection, and lets the
/// publications that the library sends again pass one at a time: each when the one before it is
/// answered. If the broker then closes the connection, the publication on its way is the reason.
///
/// The library itself sends up to 20 at a time. The broker's answers to those before the one that
/// it does not take are often lost, so they look the same as that one.
///
/// The library's descriptor refers to one end of a socket pair meanwhile. All bytes pass unchanged
/// and in order, so the connection can be given back at any time.
///
/// For the thread that has the network turn. An operation that throws `std::bad_alloc` may have
/// lost bytes: the connection is of no use then, and ends with this object.
class OneByOneRelay {
public:
    /// @param library connected, and nothing is sent yet
    /// @return null if the system has no descriptor for it; the connection is as before then
    /// @throws std::bad_alloc likewise
    static std::unique_ptr<OneByOneRelay> begin(mosqpp::mosquittopp& library);

    OneByOneRelay(mosqpp::mosquittopp& library, OwnDescriptor broker, OwnDescriptor end);

    /// Waits for the broker, no longer than the time given, and passes what there is. When the
    /// broker has closed the connection the library does not know it yet.
    /// @return the library's code
    int step(std::chrono::milliseconds longestWait);
    /// The broker has closed the connection.
    bool isLost() const { return isLost_; }
    /// Nothing is left to be passed one at a time: `giveBack` is due.
    bool isDone() const;
    /// Gives the connection back to the library.
    void giveBack();

    /// What was on its way when the broker closed the connection.
    std::optional<UnansweredPublication> const& unanswered() const { return unanswered_; }
    /// Makes the library forget that publication: it gets the acknowledgement from here.
    /// @return false if the broker's last packet is not complete
    bool acknowledgeUnanswered();
    /// Shows the library that the connection is closed.
    /// @return the library's code
    int closeConnection();

    /// Tells the broker that the end of the connection is intended. Not if a publication is
    /// passing: it cannot be interrupted.
    void sendDisconnect();

private:
    using Clock = std::chrono::steady_clock;

    int passToBroker();
    bool receiveFromLibrary();
    bool sendToBroker();
    bool beginPacket();
    bool beginPublication(std::string_view packet, std::size_t start, std::size_t packetSize,
                          int qos);
    void waitForBroker(std::chrono::milliseconds longestWait) const;
    int passToLibrary();
    int letLibraryRead();
    void lookForAnswers(std::string_view bytes);
    void handleAnswer(std::string_view packet);

    mosqpp::mosquittopp& library_;
    OwnDescriptor broker_;
    OwnDescriptor end_;                ///< of the socket pair; the library has the other one
    Clock::time_point const deadline_; ///< what is not answered by then is not waited for
    bool isAccepted_ = false;          ///< the broker has answered CONNECT
    bool isLost_ = false;
    int publications_ = 0; ///< passed, or passing
    std::optional<UnansweredPublication> unanswered_;
    std::string fromLibrary_;    ///< not sent yet
    std::size_t passing_ = 0;    ///< bytes of a packet that is being sent, still to be sent
    std::string answer_;         ///< the beginning of a packet from the broker
    std::size_t answerRest_ = 0; ///< bytes of that packet that do not matter, still to come
};

} // namespace mqtt
