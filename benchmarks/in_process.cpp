// What needs no broker, over a broker library that does nothing: documents beside RapidJSON,
// dispatch to many subscribers, and the ways of a message in and out beside what one would write by
// hand.

#include "in_process.hpp"

namespace {

void run(bench::Options const& options) {
    bench::pinToOneProcessor();
    bench::measureDocuments(options);
    bench::measureDispatch(options);
    bench::measurePaths(options);
}

} // namespace

int main(int argc, char** argv) {
    return bench::runProgram(argc, argv, run);
}
