#pragma once

#include "callback_test.hpp"

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

/// How a call of an operation has ended.
enum class Outcome { SUCCESS, REFUSED, TIMED_OUT, OTHER };

template <class Code>
Outcome outcomeOf(Code code) {
    return code == Code::SUCCESS   ? Outcome::SUCCESS
           : code == Code::TIMEOUT ? Outcome::TIMED_OUT
                                   : Outcome::OTHER;
}
inline Outcome outcomeOf(mqtt::MqttClient::Error error) {
    return error == mqtt::MqttClient::Error::CONNECTION_PENDING
               ? Outcome::REFUSED
               : outcomeOf<mqtt::MqttClient::Error>(error);
}
inline Outcome outcomeOf(mqtt::RequestReply::ErrorCode error) {
    using Code = mqtt::RequestReply::ErrorCode;
    return outcomeOf<Code>(error == Code::PENDING ? Code::SUCCESS : error);
}
inline Outcome outcomeOf(bool succeeded) {
    return succeeded ? Outcome::SUCCESS : Outcome::TIMED_OUT;
}
/// Of an operation that only looks, with whether it sees what it must.
inline Outcome holds(bool condition) {
    return condition ? Outcome::SUCCESS : Outcome::OTHER;
}
inline Outcome outcomeOf(Outcome outcome) {
    return outcome;
}

/// In what an operation differs from others.
enum class Kind {
    USUAL,
    WAITS_FOR_THE_BROKER, ///< but not on the worker: there it returns a time-out
    SUCCEEDS_IN_VAIN      ///< a wait in vain has no result, or is a success: it ends all the same
};

/// Where there is nothing to check beside the outcome of the call, or to prepare.
inline bool nothingElse(CallbackTest& /*test*/) {
    return true;
}
inline void nothing(CallbackTest& /*test*/) {}

/// A public operation, and how to check that a call of it has worked.
struct Operation {
    using Step = std::function<void(CallbackTest&)>;
    using Check = std::function<bool(CallbackTest&)>;

    /// @param operationToCall a function of a `CallbackTest&`, without a result or with one that
    ///                        `outcomeOf` takes
    template <class Call>
    Operation(std::string const& nameOfIt, Call const& operationToCall, Check after = nothingElse,
              Step before = nothing, Kind kindOfIt = Kind::USUAL)
        : name(nameOfIt), check(std::move(after)), prepare(std::move(before)), kind(kindOfIt) {
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
    /// The object cannot be used afterwards.
    bool endsTheObject() const {
        auto const operation = name.substr(name.find('/') + 1);
        return operation == "destroy" || operation == "terminate"
               || name == "RequestReplyClient/release";
    }

    std::string name; ///< class and operation: "Timer/stop"
    std::function<Outcome(CallbackTest&)> call;
    Check check;  ///< on the test's thread, afterwards, unless the call is refused
    Step prepare; ///< on the test's thread, before any callback
    Kind kind;
};

using Operations = std::vector<Operation>;

/// Those of clients and endpoints.
Operations clientOperations();
/// Those of all other classes.
Operations serviceOperations();
/// All of these.
Operations const& allOperations();
/// Null when there is none with this name.
Operation const* findOperation(std::string const& name);

/// To prepare an operation: calls this one, and checks that it has worked.
inline Operation::Step done(std::string const& name) {
    return [name](CallbackTest& t) {
        auto const& operation = *findOperation(name);
        operation.call(t);
        EXPECT_TRUE(operation.check(t)) << name;
    };
}
/// To check that something is not so.
inline Operation::Check no(Operation::Check const& check) {
    return [check](CallbackTest& t) { return !check(t); };
}
