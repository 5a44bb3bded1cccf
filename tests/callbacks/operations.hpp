#pragma once

#include "callback_test.hpp"

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

/// How a call of an operation has ended.
enum class Outcome { SUCCESS, REFUSED, TIMED_OUT, OTHER };

inline Outcome outcomeOf(mqtt::MqttClient::Error error) {
    using Error = mqtt::MqttClient::Error;
    return error == Error::SUCCESS              ? Outcome::SUCCESS
           : error == Error::CONNECTION_PENDING ? Outcome::REFUSED
           : error == Error::TIMEOUT            ? Outcome::TIMED_OUT
                                                : Outcome::OTHER;
}
inline Outcome outcomeOf(mqtt::RequestReply::ErrorCode error) {
    using Code = mqtt::RequestReply::ErrorCode;
    return error == Code::SUCCESS || error == Code::PENDING ? Outcome::SUCCESS
           : error == Code::TIMEOUT                         ? Outcome::TIMED_OUT
                                                            : Outcome::OTHER;
}
inline Outcome outcomeOf(zym::common::Binder::Error error) {
    using Error = zym::common::Binder::Error;
    return error == Error::SUCCESS   ? Outcome::SUCCESS
           : error == Error::TIMEOUT ? Outcome::TIMED_OUT
                                     : Outcome::OTHER;
}
inline Outcome outcomeOf(bool succeeded) {
    return succeeded ? Outcome::SUCCESS : Outcome::TIMED_OUT;
}

/// In what an operation differs from others.
enum class Kind {
    USUAL,
    WHILE_DISCONNECTED,   ///< it needs a client that is disconnected
    WAITS_FOR_THE_BROKER, ///< but not on the worker: there it returns a time-out
    SUCCEEDS_IN_VAIN      ///< a wait in vain has no result, or is a success: it ends all the same
};

/// A public operation, and how to check that a call of it has worked.
struct Operation {
    using Step = std::function<void(CallbackTest&)>;

    /// @param operationToCall a function of a `CallbackTest&`, without a result or with one that
    ///                        `outcomeOf` takes
    template <class Call>
    Operation(std::string const& nameOfIt, Step const& before, Call const& operationToCall,
              Step const& after, Kind kindOfIt = Kind::USUAL)
        : name(nameOfIt), prepare(before), check(after), kind(kindOfIt) {
        call = [operationToCall](CallbackTest& t) {
            if constexpr (std::is_void_v<decltype(operationToCall(t))>) {
                operationToCall(t);
                return Outcome::SUCCESS;
            } else {
                return outcomeOf(operationToCall(t));
            }
        };
    }

    std::string className() const { return name.substr(0, name.find('/')); }

    std::string name; ///< class and operation: "Timer/stop"
    Step prepare;     ///< on the test's thread, before any callback
    std::function<Outcome(CallbackTest&)> call;
    Step check; ///< on the test's thread, afterwards, unless the call is refused
    Kind kind;
};

using Operations = std::vector<Operation>;

Operations clientOperations();
Operations dataOperations();
Operations requestReplyOperations();
Operations timeBaseOperations();
Operations binderOperations();
Operations discoveryOperations();
Operations cleanerOperations();
Operations timerOperations();
/// All of these.
Operations const& allOperations();

/// Where there is nothing to prepare, or to check beside the outcome of the call.
inline void nothing(CallbackTest& /*test*/) {}
