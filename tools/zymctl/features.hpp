#pragma once

#include "settings.hpp"

#include <string>

/// What a feature of the library needs of a broker, and how to find out whether it works.
struct Feature {
    char const* name;
    char const* text; ///< what it is, for people
    bool needsQos2;
    bool needsRetained;
    /// With connections of its own, on topics below `base`. Throws or returns false if it does not
    /// work.
    bool (*works)(Context& context, std::string const& base);
};

extern Feature const FEATURES[7]; ///< the last one erases what the others leave

/// Erases what is retained below `base`, also after an interruption.
void erase(Settings const& settings, std::string const& base);
