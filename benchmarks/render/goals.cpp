#include "goals.hpp"

namespace bench::render {
namespace {

constexpr char const* SHIPPED = "as shipped";
constexpr char const* NODELAY = "set_tcp_nodelay true";

void addClients(std::vector<Goal>& all) {
    for (char const* const typed : {"values-communication", "values-identification"}) {
        all.push_back({"client", NODELAY, typed, "throughput", "raw", Measure::RATIO, 1.12});
    }
    for (char const* const qos0 : {"throughput-qos0-64", "throughput-qos0-1024"}) {
        all.push_back({"client", NODELAY, qos0, "throughput", "raw", Measure::RATIO, 0.95});
    }
    // 0.97 of the publications in the same time.
    for (char const* const wait : {"acknowledge-qos1", "acknowledge-qos2"}) {
        all.push_back({"client", NODELAY, wait, "p50", "raw", Measure::RATIO, 1 / 0.97});
    }
    all.push_back({"client", NODELAY, "request-reply", "p50", "raw", Measure::RATIO, 1.04});
    all.push_back({"client", NODELAY, "request-reply", "p99", "raw", Measure::RATIO, 1.1});
    for (char const* const oneWay :
         {"throughput-qos0-64", "throughput-qos0-1024", "throughput-qos1-64",
          "throughput-qos1-1024", "throughput-qos2-64", "throughput-qos2-1024"}) {
        all.push_back({"client", SHIPPED, oneWay, "throughput", "raw", Measure::RATIO, 0.88});
    }
    all.push_back({"client", SHIPPED, "request-reply", "p50", "raw", Measure::RATIO, 0.01});
    all.push_back({"client", SHIPPED, "request-reply", "p99", "raw", Measure::OURS, 1000});
    all.push_back({"client", SHIPPED, "burst-of-four", "p99", "raw", Measure::RATIO, 0.05});
}

void addIdle(std::vector<Goal>& all) {
    all.push_back({"idle", "", "idle", "threads of the only one", "raw", Measure::OURS, 1});
    all.push_back({"idle", "", "idle", "descriptors of the only one", "raw", Measure::OURS, 3});
    all.push_back({"idle", "", "idle", "heap of one more", "raw", Measure::EXCESS, 8});
    all.push_back({"idle", "", "idle", "resident memory of one more", "raw", Measure::EXCESS, 8});
}

void addDispatch(std::vector<Goal>& all) {
    for (char const* const exact : {"text, the same ten", "text, each in turn", "text, none"}) {
        all.push_back({"dispatch", "", exact, "10000", "10", Measure::RATIO, 1.5});
    }
    for (char const* const pattern :
         {"pattern, the first", "pattern, the last", "pattern, each in turn", "pattern, none"}) {
        all.push_back({"dispatch", "", pattern, "10000", "10", Measure::RATIO, 1.6});
    }
}

void addDocuments(std::vector<Goal>& all) {
    for (char const* const document : {"communication", "identification", "status", "link",
                                       "10 links", "1000 links", "request", "reply"}) {
        all.push_back({"documents", "", document, "write", "Writer", Measure::RATIO, 0.85});
        all.push_back({"documents", "", document, "read", "SAX", Measure::RATIO, 0.45});
        all.push_back({"documents", "", document, "read", "DOM", Measure::RATIO, 0.35});
    }
}

void addPaths(std::vector<Goal>& all) {
    for (char const* const way : {"receive 4 bytes", "receive 1000 bytes", "receive a status",
                                  "receive an identification"}) {
        all.push_back({"paths", "", way, "allocations", "by hand", Measure::OURS, 2});
    }
}

std::vector<Goal> makeGoals() {
    std::vector<Goal> all;
    addClients(all);
    addIdle(all);
    addDispatch(all);
    addDocuments(all);
    addPaths(all);
    return all;
}

} // namespace

double Goal::valueIn(Row const& row) const {
    switch (measure) {
    case Measure::OURS:
        return row.ours;
    case Measure::EXCESS:
        return row.ours - row.theirs;
    case Measure::RATIO:
        break;
    }
    return row.ratio;
}

bool Goal::keptBy(Row const& row) const {
    return row.moreIsBetter() ? valueIn(row) >= bound : valueIn(row) <= bound;
}

std::vector<Goal> const& goals() {
    static std::vector<Goal> const all = makeGoals();
    return all;
}

} // namespace bench::render
