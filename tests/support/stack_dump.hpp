#pragma once

#include <iosfwd>

namespace support {

/// Writes where each thread of this process stands, with file and line where addr2line is at
/// hand. A thread that does not answer within a few seconds is named and left out.
void dumpStacks(std::ostream& out);

} // namespace support
