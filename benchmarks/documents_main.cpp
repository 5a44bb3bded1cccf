// Writing and reading every kind of document, against bare RapidJSON, without a broker.

#include "cpu_clock.hpp"
#include "documents.hpp"
#include "pinning.hpp"
#include "rapidjson_documents.hpp"
#include "report.hpp"
#include "statistics.hpp"

#include <cstddef>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string>
#include <vector>

namespace {

constexpr char const* USAGE = "bench-documents [--quick]\n"
                              "Compares writing and reading of documents with RapidJSON alone.\n";

struct Effort {
    unsigned repetitions = 9;
    double seconds = 0.1; ///< of one measurement of one side
};

/// What comes out of it ends here, lest the compiler leave it out.
std::size_t volatile sink = 0;

/// @return nanoseconds of processor time for one time: nothing here waits, and what else the
///         machine does is left out
template <class Action>
double timeOf(Action action, Effort const& effort) {
    constexpr unsigned BATCH = 64; // the clock is read seldom
    double passed = 0;
    double count = 0;
    double const start = bench::cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    while (passed < effort.seconds) {
        for (unsigned i = 0; i < BATCH; ++i) {
            sink = action();
        }
        count += BATCH;
        passed = bench::cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - start;
    }
    return passed / count * 1e9;
}

template <class Reference, class Candidate>
bench::Comparison compare(char const* name, Reference reference, Candidate candidate,
                          Effort const& effort) {
    std::vector<double> theirs;
    std::vector<double> ours;
    std::vector<double> ratios;
    for (unsigned i = 0; i < effort.repetitions; ++i) {
        theirs.push_back(timeOf(reference, effort));
        ours.push_back(timeOf(candidate, effort));
        ratios.push_back(ours.back() / theirs.back());
    }
    return {name, "ns", bench::summarize(theirs), bench::summarize(ours), bench::summarize(ratios)};
}

/// Each side reads what we write, into a value that it has read before.
template <class T>
void compareBoth(char const* name, T const& sample, Effort const& effort,
                 mqtt::Topic const& topic = "bench") {
    using Data = mqtt::MqttData<T>;
    std::string text;
    Data::serialize(topic, text, sample);
    T value = sample;
    auto const write = [&] {
        std::string payload;
        Data::serialize(topic, payload, sample);
        return payload.size();
    };
    auto const read = [&] {
        Data::deserialize(topic, text, false, value);
        return text.size();
    };
    auto const rapidWrite = [&] { return bench::rapid::write(sample); };
    auto const rapidRead = [&] {
        bench::rapid::read(text, value);
        return text.size();
    };
    bench::printRows(name, {compare("write", rapidWrite, write, effort),
                            compare("read", rapidRead, read, effort)});
}

void compareAll(Effort const& effort) {
    bench::printTableHead("Documents", "RapidJSON", "ours");
    compareBoth("communication", bench::sampleCommunication(), effort);
    compareBoth("identification", bench::sampleIdentification(), effort);
    compareBoth("status", conv::ServiceStatus{1, 3}, effort);
    mqtt::Link const link{"site/building/device/4711"};
    compareBoth("link", link, effort);
    compareBoth("10 links", std::vector<mqtt::Link>(10, link), effort);
    compareBoth("1000 links", std::vector<mqtt::Link>(1000, link), effort);
    mqtt::RequestReply::Reply const reply = bench::sampleReply();
    compareBoth("request", mqtt::RequestReply::Request(reply), effort, bench::requestTopic());
    compareBoth("reply", reply, effort, bench::replyTopic());
}

} // namespace

int main(int argc, char** argv) try {
    Effort effort;
    if (argc == 2 && std::string(argv[1]) == "--quick") {
        effort = {1, 0.005};
    } else if (argc > 1) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    bench::pin(-1);
    compareAll(effort);
    return 0;
} catch (std::exception const& error) {
    std::fprintf(stderr, "bench-documents: %s\n", error.what());
    return 1;
}
