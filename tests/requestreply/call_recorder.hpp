#pragma once

#include "mqtt/test/watched.hpp"

#include <functional>
#include <utility>
#include <vector>

/// Keeps the calls of a listener, for other threads to wait for. Declare it before what calls it.
template <class Call>
class CallRecorder {
public:
    using Hook = std::function<void(Call const&)>;

    /// @param hook called within every call, after that was recorded; it may destroy the recorder
    explicit CallRecorder(Hook hook = {}) : hook_(std::move(hook)) {}
    virtual ~CallRecorder() = default;

    /// For the calls to come.
    void setHook(Hook hook) {
        hook_.change([&](Hook& current) { current = std::move(hook); });
    }

    std::vector<Call> calls() const { return calls_.copy(); }
    std::size_t count() const { return calls().size(); }
    bool waitForCount(std::size_t count) const {
        return calls_.waitFor([&](auto const& calls) { return calls.size() >= count; });
    }

protected:
    void record(Call const& call) {
        // A thread that waits for this call may destroy the recorder once it is recorded.
        auto const hook = hook_.copy();
        calls_.change([&](auto& calls) { calls.push_back(call); });
        if (hook) {
            hook(call);
        }
    }

private:
    mqtt::test::Watched<Hook> hook_;
    mqtt::test::Watched<std::vector<Call>> calls_;
};
