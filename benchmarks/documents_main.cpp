// Writing and reading every kind of document, against bare RapidJSON, without a broker.

#include "documents.hpp"
#include "pinning.hpp"
#include "processor_time.hpp"
#include "rapidjson_documents.hpp"
#include "rapidjson_sax.hpp"
#include "report.hpp"
#include "simple_options.hpp"
#include "statistics.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace {

constexpr char const* USAGE = "bench-documents [--quick] [--results FILE]\n"
                              "Compares writing and reading of documents with RapidJSON alone.\n";

/// Times by repetition.
using Times = std::vector<double>;

bench::Comparison compared(char const* name, char const* against, Times const& theirs,
                           Times const& ours) {
    Times ratios;
    for (std::size_t i = 0; i < ours.size(); ++i) {
        ratios.push_back(ours[i] / theirs[i]);
    }
    return {name,
            "ns",
            against,
            bench::summarize(theirs),
            bench::summarize(ours),
            bench::summarize(ratios)};
}

class Comparer {
public:
    explicit Comparer(bench::SimpleOptions const& options)
        : repetitions_(options.quick ? 1 : 9),
          seconds_(options.quick ? 0.005 : 0.1),
          results_(options.results, "documents") {
        bench::pin(-1);
        bench::printTableHead("Documents");
    }

    /// Each side reads what we write, into a value that it has read before.
    template <class T>
    void compare(char const* name, T const& sample, mqtt::Topic const& topic = "bench") {
        using Data = mqtt::MqttData<T>;
        std::string text;
        Data::serialize(topic, text, sample);
        T value = sample;
        tell(name, comparedInTurns(
                       "write", "Writer", [&] { return bench::rapid::write(sample); },
                       [&] {
                           std::string payload;
                           Data::serialize(topic, payload, sample);
                           return payload.size();
                       }));
        auto const reading = [&](auto read) {
            return [&, read] {
                read();
                return text.size();
            };
        };
        compareReading(name, reading([&] { Data::deserialize(topic, text, false, value); }),
                       reading([&] { bench::rapid::read(text, value); }),
                       reading([&] { bench::rapid::sax::read(text, value); }));
        // How much of reading is the reader's own, whatever becomes of the values: by RapidJSON
        // alone, so it is no figure of ours and not among the results.
        bench::printRow(name, comparedInTurns("RapidJSON, values dropped", "SAX", reading([&] {
                                                  bench::rapid::sax::read(text, value);
                                              }),
                                              reading([&] { bench::rapid::sax::skip(text); })));
    }

private:
    template <class Theirs, class Ours>
    bench::Comparison comparedInTurns(char const* figure, char const* against, Theirs const& theirs,
                                      Ours const& ours) const {
        Times them;
        Times us;
        for (unsigned i = 0; i < repetitions_; ++i) {
            them.push_back(bench::processorTimeOf(theirs, seconds_));
            us.push_back(bench::processorTimeOf(ours, seconds_));
        }
        return compared(figure, against, them, us);
    }

    template <class Ours, class Dom, class Sax>
    void compareReading(char const* name, Ours const& ours, Dom const& dom, Sax const& sax) {
        Times us;
        Times document;
        Times reader;
        for (unsigned i = 0; i < repetitions_; ++i) {
            document.push_back(bench::processorTimeOf(dom, seconds_));
            us.push_back(bench::processorTimeOf(ours, seconds_));
            reader.push_back(bench::processorTimeOf(sax, seconds_));
        }
        tell(name, compared("read", "SAX", reader, us));
        tell(name, compared("read", "DOM", document, us));
    }

    void tell(char const* name, bench::Comparison const& row) {
        bench::printRow(name, row);
        results_.add("", name, row);
    }

    unsigned const repetitions_;
    double const seconds_; ///< of one measurement of one side
    bench::Results results_;
};

int run(bench::SimpleOptions const& options) {
    Comparer comparer(options);
    comparer.compare("communication", bench::sampleCommunication());
    comparer.compare("identification", bench::sampleIdentification());
    comparer.compare("status", conv::ServiceStatus{1, 3});
    mqtt::Link const link{"site/building/device/4711"};
    comparer.compare("link", link);
    comparer.compare("10 links", std::vector<mqtt::Link>(10, link));
    comparer.compare("1000 links", std::vector<mqtt::Link>(1000, link));
    mqtt::RequestReply::Reply const reply = bench::sampleReply();
    comparer.compare("request", mqtt::RequestReply::Request(reply), bench::requestTopic());
    comparer.compare("reply", reply, bench::replyTopic());
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    return bench::runProgram(argc, argv, USAGE, run);
}
