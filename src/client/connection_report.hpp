#pragma once

#include "mqtt/failure.hpp"

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

namespace mqtt {

/// Finds out why attempts to connect fail and connections end, keeps the last reason, and logs
/// these events.
///
/// The reasons come from the results of the broker library, from its callbacks, and, for TLS, from
/// the texts that it logs. An attempt and the connection that it makes have one failure at most:
/// the first that is noted. Without memory a text is missing: what the broker library calls must
/// not let an exception through.
class ConnectionReport {
public:
    explicit ConnectionReport(std::string const& clientId) : clientId_(clientId) {}

    /// In any thread.
    Failure lastFailure() const;
    /// In any thread: what has become of a publication at a limit of the queue.
    void publicationLost(char const* how, std::string const& topic,
                         std::size_t payloadSize) const noexcept;
    /// In any thread: a message is larger than the maximum.
    void messageDropped(char const* topic, std::size_t payloadSize) const noexcept;
    /// In any thread: by the broker. The topic is empty if it is not known.
    void subscriptionRefused(std::string const& topic) const noexcept;

    /// In any thread: a line of the broker library's log.
    void brokerLibraryWrote(int level, char const* text) noexcept;

    // The rest is for the thread that has the network turn. No lock is held while it logs.

    /// The application wants a connection: forgets the last failure.
    void connectBegins(char const* host, int port) noexcept;
    /// The broker library is about to connect, unless something is missing.
    void attemptBegins() noexcept;
    /// The attempt cannot be made.
    void failed(Failure failure) noexcept;
    /// The broker library's `connect`, `reconnect` or network step has returned this, or
    /// `on_disconnect` was called with it.
    void failed(int result, int systemError) noexcept;
    /// The broker has answered: 0 if it has accepted the client.
    void answered(int code) noexcept;
    /// The broker has closed one connection after the other because of this publication: it is the
    /// reason of this one's end.
    void publicationGivenUp(std::string const& topic, std::size_t payloadSize) noexcept;
    void connectionCompleted() const noexcept;
    void waitsForNextAttempt(std::chrono::milliseconds delay) const noexcept;

private:
    Failure failureOf(int result, int systemError) const;

    std::string const& clientId_;
    mutable std::mutex mutex_;                          ///< for changes, and for other threads
    Failure last_;                                      ///< with the peer of the next attempt
    Failure::Reason tlsReason_ = Failure::Reason::NONE; ///< logged during this attempt
    bool isAccepted_ = false;                           ///< by the broker, in this attempt
    bool hasFailed_ = false;                            ///< this attempt
    std::unique_ptr<std::string> tlsText_;              ///< null without a reason of TLS
};

} // namespace mqtt
