#pragma once

#include <iosfwd>
#include <string>

namespace support {

/// Writes the stack of each other thread of this process. A thread that does not answer within a
/// few seconds is named and left out.
void dumpStacks(std::ostream& out);

/// Function, file and line of a return address, where addr2line is installed; more lines for calls
/// that were inlined.
std::string describeFrame(void* frame);

} // namespace support
