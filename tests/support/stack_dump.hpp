#pragma once

#include <iosfwd>
#include <string>

namespace support {

/// Writes the stack of each other thread of this process that answers a signal within 2 s.
void dumpStacks(std::ostream& out);

/// Function, file and line of a return address, where addr2line is installed; more lines for calls
/// that were inlined.
std::string describeFrame(void* frame);

/// What a shell command writes to its standard output.
std::string outputOf(std::string const& command);

} // namespace support
