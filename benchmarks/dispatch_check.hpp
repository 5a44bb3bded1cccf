#pragma once

#include <string>
#include <vector>

namespace bench {

/// Lets a client choose subscriptions for messages, and the plain walk as well: by text, else the
/// first pattern in byte order that matches.
/// @return whether they agree every time; prints where they do not
bool choosesAsAWalk(std::vector<std::string> const& subscriptions,
                    std::vector<std::string> const& messages);

/// The same for random subscriptions and messages.
bool choosesAsAWalkAtRandom(unsigned registries);

} // namespace bench
