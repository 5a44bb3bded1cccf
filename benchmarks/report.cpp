#include "report.hpp"

#include <mosquittopp.h>
#include <sys/utsname.h>

#include <cstdio>

namespace bench {
namespace {

std::string libraryVersion() {
    int major = 0;
    int minor = 0;
    int revision = 0;
    mosqpp::lib_version(&major, &minor, &revision);
    return std::to_string(major) + '.' + std::to_string(minor) + '.' + std::to_string(revision);
}

std::string kernel() {
    utsname name{};
    return ::uname(&name) == 0 ? std::string(name.sysname) + ' ' + name.release + ' ' + name.machine
                               : "unknown";
}

#ifdef __OPTIMIZE__
constexpr char const* BUILD = "optimised";
#else
constexpr char const* BUILD = "NOT OPTIMISED";
#endif

} // namespace

void printConditions(Options const& options, int cpu) {
    Effort const& effort = options.effort;
    std::printf("Conditions\n");
    std::printf("- libmosquittopp %s, %s\n", libraryVersion().c_str(),
                BrokerProcess::version().c_str());
    std::printf("- %s, compiler %s, %s\n", kernel().c_str(), __VERSION__, BUILD);
    std::printf("- broker and clients pinned to CPU %d, parties in turns\n", cpu);
    std::printf("- median of %u repetition(s), lowest and highest behind it; ratios are formed "
                "inside each repetition\n",
                options.repetitions);
    std::printf("- throughput: %llu messages per run (QoS 0: five times as many), at most %u on "
                "their way; broker "
                "subscription at QoS 0\n",
                static_cast<unsigned long long>(effort.messages), effort.window);
    std::printf("- acknowledge: publication of 64 bytes to its acknowledgement, up to %u per run\n"
                "- round trip: the same, QoS 2, to the answer of another client; four at once; one "
                "with a subscription made for it\n"
                "- values: typed values at QoS 2, retained; the other side sends and counts the "
                "same bytes\n"
                "- request-reply: subscription, request, reply, unsubscription\n"
                "- connect: call to the broker's consent, up to %u per run; every run of latencies "
                "and connections ends after %.0f s\n",
                effort.latencies, effort.connections, effort.seconds);
}

void printTableHead(std::string const& title, char const* reference, char const* candidate) {
    std::printf("\n%s\n\n", title.c_str());
    std::printf("| %-21s | %-26s | %-6s | %10s | %10s | %-6s | %-16s |\n", "measurement", "figure",
                "unit", reference, candidate, "ratio", "lowest..highest");
    std::printf("|%.23s|%.28s|%.8s|%.11s:|%.11s:|%.7s:|%.17s:|\n", "----------------------------",
                "----------------------------", "--------", "-----------", "-----------", "-------",
                "-----------------");
}

void printRows(std::string const& measurement, std::vector<Comparison> const& comparisons) {
    for (Comparison const& row : comparisons) {
        std::printf("| %-21s | %-26s | %-6s | %10.1f | %10.1f | %6.3f | %6.3f .. %6.3f |\n",
                    measurement.c_str(), row.name.c_str(), row.unit.c_str(), row.reference.median,
                    row.candidate.median, row.ratio.median, row.ratio.lowest, row.ratio.highest);
    }
    std::fflush(stdout);
}

} // namespace bench
