#include "report.hpp"

#include <mosquittopp.h>
#include <sys/utsname.h>

#include <cstdio>
#include <sstream>

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

std::string parties(Contest const& contest) {
    std::string text = contest.candidate->name();
    for (auto const& reference : contest.references) {
        text += std::string(" beside ") + reference->name();
    }
    return text;
}

std::string plain(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

} // namespace

std::vector<std::string> commonConditions(unsigned repetitions, int cpu) {
    return {"libmosquittopp " + libraryVersion() + ", " + BrokerProcess::version(),
            kernel() + ", compiler " + __VERSION__ + ", " + BUILD,
            "everybody pinned to CPU " + std::to_string(cpu) + ", in turns; median of "
                + std::to_string(repetitions) + " repetition(s), lowest and highest behind it"};
}

std::vector<std::string> clientConditions(Options const& options, int cpu, Contest const& contest) {
    Effort const& effort = options.effort;
    auto result = commonConditions(options.repetitions, cpu);
    result.push_back("clients: " + parties(contest)
                     + (contest.references.size() == 1 ? ", without Paho C++" : "")
                     + "; subscribed at QoS 0 at the broker");
    result.push_back("throughput: " + std::to_string(effort.messages)
                     + " messages per run (QoS 0: five times as many), at most "
                     + std::to_string(effort.window) + " on their way");
    result.push_back("latencies: up to " + std::to_string(effort.latencies)
                     + " per run, connections up to " + std::to_string(effort.connections)
                     + "; a run of them ends after " + plain(effort.seconds) + " s");
    return result;
}

void printConditions(std::vector<std::string> const& conditions, Results& results) {
    std::printf("Conditions\n");
    for (auto const& condition : conditions) {
        std::printf("- %s\n", condition.c_str());
        results.addCondition(condition);
    }
}

void printTableHead(std::string const& title) {
    std::printf("\n%s\n\n", title.c_str());
    std::printf("| %-23s | %-26s | %-6s | %-9s | %11s | %11s | %-7s | %-18s |\n", "measurement",
                "figure", "unit", "against", "theirs", "ours", "ratio", "lowest..highest");
    std::printf("|---|---|---|---|--:|--:|--:|--:|\n");
}

void printRow(std::string const& measurement, Comparison const& row) {
    std::printf("| %-23s | %-26s | %-6s | %-9s | %11.1f | %11.1f | %7.3f | %7.3f .. %7.3f |\n",
                measurement.c_str(), row.name.c_str(), row.unit.c_str(), row.against.c_str(),
                row.reference.median, row.candidate.median, row.ratio.median, row.ratio.lowest,
                row.ratio.highest);
    std::fflush(stdout);
}

} // namespace bench
