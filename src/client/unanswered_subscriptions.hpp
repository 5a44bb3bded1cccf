#pragma once

#include "common/log.hpp"
#include "common/user_call.hpp"

#include <map>
#include <memory>
#include <string>
#include <utility>

namespace mqtt {

/// The topics of subscriptions that the broker has not answered, because its answer has the message
/// id only. They serve the log, and without one nothing is kept.
class UnansweredSubscriptions {
public:
    /// Without memory the topic is not known later.
    void add(int messageId, std::string const& topic) noexcept {
        if (!isLogged(LogLevel::ERROR)) {
            return;
        }
        callUser([&] {
            if (!topics_) {
                topics_ = std::make_unique<std::map<int, std::string>>();
            }
            topics_->insert_or_assign(messageId, topic);
        });
    }

    /// @return its topic; empty if it is not known
    std::string remove(int messageId) {
        if (!topics_) {
            return {};
        }
        auto entry = topics_->extract(messageId);
        return entry ? std::move(entry.mapped()) : std::string();
    }

    void clear() noexcept { topics_.reset(); }

private:
    std::unique_ptr<std::map<int, std::string>> topics_; ///< null if there are none
};

} // namespace mqtt
