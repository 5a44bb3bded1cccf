#pragma once

namespace mqtt {

/// Initialises the broker library, once. To be called before each object of its class is made.
/// Makes the process ignore SIGPIPE, unless it has a handler.
/// @throw std::runtime_error the version found at run time is not one that we can use
void prepareBrokerLibrary();

} // namespace mqtt
