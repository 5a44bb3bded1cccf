#pragma once

#include <iosfwd>
#include <string>

namespace support {

/// Writes where each thread of this process stands, with file and line where addr2line is at
/// hand. A thread that does not answer within a few seconds is named and left out.
void dumpStacks(std::ostream& out);

/// Function, file and line of a place in the program, where addr2line is at hand; more lines for
/// calls that were inlined.
std::string describeFrame(void* frame);

} // namespace support
