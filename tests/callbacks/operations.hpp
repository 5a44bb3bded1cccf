#pragma once

#include "stage.hpp"

#include <functional>
#include <string>
#include <vector>

/// A public operation, and how to see that a call of it has worked.
struct Operation {
    using Step = std::function<void(Stage&)>;

    std::string name; ///< class and operation: "Timer/stop"
    Step prepare;     ///< on the test's thread, before anything calls
    Step call;        ///< inside the callback
    Step check;       ///< on the test's thread, afterwards
    /// For clients that are not connected.
    bool offline = false;
    /// In which of its own calls an object is to be used: "" for the first that comes.
    std::string ownEvent = "";
};

using Operations = std::vector<Operation>;

Operations clientOperations();
Operations dataOperations();
Operations requestReplyOperations();
Operations timeBaseOperations();
Operations binderOperations();
Operations discoveryOperations();
Operations cleaningOperations();
Operations timerOperations();

/// Nothing to prepare, or nothing more to be seen than what the call returns.
inline void nothing(Stage& /*stage*/) {}
