#pragma once

namespace mqtt {

/// Initialises the broker library. To be called before each object of its class is made; only the
/// first call does anything.
/// @throw std::runtime_error the version found at run time is not one that we can use
void prepareBrokerLibrary();

} // namespace mqtt
