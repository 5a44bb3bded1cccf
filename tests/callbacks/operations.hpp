#pragma once

#include "callback_test.hpp"

#include <functional>
#include <string>
#include <vector>

/// A public operation, and how to check that a call of it has worked.
struct Operation {
    using Step = std::function<void(CallbackTest&)>;

    std::string name; ///< class and operation: "Timer/stop"
    Step prepare;     ///< on the test's thread, before any callback
    Step call;        ///< inside the callback
    Step check;       ///< on the test's thread, afterwards
    bool whileDisconnected = false;
    /// In which callback of the same object it is called: "" for the first one.
    std::string ownEvent = "";
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

/// Where there is nothing to prepare, or to check beside the result of the call.
inline void nothing(CallbackTest& /*test*/) {}
