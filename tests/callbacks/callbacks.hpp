#pragma once

#include "callback_test.hpp"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// A callback of the library, and how to make an object call it.
struct Callback {
    std::string className; ///< of the object that calls
    std::string name;      ///< "onReply"
    std::string thread;    ///< that calls it: "worker", "caller" or "timer"
    std::string event;     ///< what the `EventRecorder` records of it begins with this
    /// Makes an object of these call it. May be called repeatedly.
    std::function<void(CallbackTest&, Objects&)> provoke;
};

/// One for each callback, and each thread that calls it.
std::vector<Callback> const& callbacks();
/// The first one with this class or name.
Callback const& callbackOf(std::string_view classNameOrName);
