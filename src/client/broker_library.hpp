#pragma once

namespace mqtt {

/// Makes the broker library ready. Before the first object of its class is made, and again
/// before each: only the first time does work.
/// @throw std::runtime_error the version found at run time is not one that we can stand on
void prepareBrokerLibrary();

} // namespace mqtt
