// What needs no broker, over a broker library that does nothing. In this file: writing and reading
// every kind of document, beside RapidJSON alone, and values with a list of fields, beside code by
// hand.

#include "in_process.hpp"
#include "data/by_hand.hpp"
#include "rapidjson_documents.hpp"
#include "samples.hpp"

#include <string>
#include <vector>

namespace bench {
namespace {

/// Both sides read what we write, into a value that they have read before.
/// @param write writes the value, which is not const; returns the size of the text
/// @param read reads a text into the value
template <class T, class Write, class Read>
void measureBeside(char const* other, Write write, Read read, Options const& options,
                   char const* name, T const& sample, mqtt::Topic const& topic) {
    using Data = mqtt::MqttData<T>;
    std::string text;
    Data::serialize(topic, text, sample);
    T value = sample;
    auto const time = [&](auto const& writeOnce, auto const& readOnce) {
        auto const readAndReturn = [&] {
            readOnce();
            return text.size();
        };
        return Figures{{"write", "ns", nanosecondsPerCall(writeOnce, options.secondsInProcess)},
                       {"read", "ns", nanosecondsPerCall(readAndReturn, options.secondsInProcess)}};
    };
    auto const writeOurs = [&] {
        std::string payload;
        Data::serialize(topic, payload, sample);
        return payload.size();
    };
    auto const others = [&](int) {
        return time([&] { return write(value); }, [&] { read(text, value); });
    };
    auto const ours = [&](int) {
        return time(writeOurs, [&] { Data::deserialize(topic, text, false, value); });
    };
    measureInTurns(options, {"documents", name}, {{other, others}, {"ours", ours}});
}

template <class T>
void measureDocument(Options const& options, char const* name, T const& sample,
                     mqtt::Topic const& topic = "bench") {
    auto const write = [](T& value) {
        return rapid::write(value, [](auto const& buffer) { return buffer.GetSize(); });
    };
    measureBeside("RapidJSON", write, rapid::read<T>, options, name, sample, topic);
}

template <class T>
void measureFields(Options const& options, char const* name, T const& sample) {
    auto const write = [](T const& value) {
        std::string payload;
        by_hand::write(payload, value);
        return payload.size();
    };
    auto const read = [](std::string const& text, T& value) { by_hand::read(text, value); };
    measureBeside("by hand", write, read, options, name, sample, "bench");
}

void measureDocuments(Options const& options) {
    mqtt::Link const link{"site/building/device/4711"};
    measureDocument(options, "communication", sampleCommunication());
    measureDocument(options, "identification", sampleIdentification());
    measureDocument(options, "status", conv::ServiceStatus{1, 3});
    measureDocument(options, "link", link);
    measureDocument(options, "10 links", std::vector<mqtt::Link>(10, link));
    measureDocument(options, "1000 links", std::vector<mqtt::Link>(1000, link));
    measureDocument(options, "reply", sampleReply(), requestAndReply().replyTopic);
    measureFields(options, "two fields", sample::Reading{12.5, "C"});
    sample::Measurement const nine{12.5,
                                   "litres per minute",
                                   4711,
                                   true,
                                   conv::UnixTime(1700000000.5),
                                   sample::Mode::FORWARD,
                                   {1.25, -7},
                                   "a note",
                                   {1, 20, 300}};
    measureFields(options, "nine fields", nine);
}

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    return bench::runProgram(argc, argv, [](bench::Options const& options) {
        bench::pinToOneProcessor();
        bench::measureDocuments(options);
        bench::measureDispatch(options);
        bench::measurePaths(options);
    });
}
