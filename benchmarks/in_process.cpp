// What needs no broker, over a broker library that does nothing. In this file: writing and reading
// every kind of document, beside RapidJSON alone, and values with a list of fields, beside code by
// hand.

#include "in_process.hpp"
#include "data/by_hand.hpp"
#include "rapidjson_documents.hpp"
#include "resources.hpp"
#include "samples.hpp"

#include <string>
#include <vector>

namespace bench {
namespace {

/// Both read what we write, into a value that they have read before.
/// @param write writes the value, which is not const; returns the size of the text
/// @param read reads a text into the value
template <class T, class Write, class Read>
void measureBeside(char const* other, Write write, Read read, Options const& options,
                   char const* name, T const& sample, mqtt::Topic const& topic) {
    using Data = mqtt::MqttData<T>;
    std::string text;
    Data::serialize(topic, text, sample);
    T value = sample;
    int const repetitions = repetitionsOf(options, "documents", name, 9);
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        auto const time = [&](char const* figure, char const* library, auto action) {
            print({"documents", name, figure, "ns", library, "", repetition,
                   nanosecondsPerCall(action, options.secondsInProcess)});
        };
        time("write", other, [&] { return write(value); });
        time("write", "ours", [&] {
            std::string payload;
            Data::serialize(topic, payload, sample);
            return payload.size();
        });
        time("read", other, [&] {
            read(text, value);
            return text.size();
        });
        time("read", "ours", [&] {
            Data::deserialize(topic, text, false, value);
            return text.size();
        });
    }
}

template <class T>
void measureDocument(Options const& options, char const* name, T const& sample,
                     mqtt::Topic const& topic = "bench") {
    auto const write = [](T& value) {
        return rapid::write(value, [](auto const& buffer) { return buffer.GetSize(); });
    };
    auto const read = [](std::string const& text, T& value) { rapid::read(text, value); };
    measureBeside("RapidJSON", write, read, options, name, sample, topic);
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
    mqtt::RequestReply::Reply const reply = sampleReply();
    measureDocument(options, "communication", sampleCommunication());
    measureDocument(options, "identification", sampleIdentification());
    measureDocument(options, "status", conv::ServiceStatus{1, 3});
    measureDocument(options, "link", link);
    measureDocument(options, "10 links", std::vector<mqtt::Link>(10, link));
    measureDocument(options, "1000 links", std::vector<mqtt::Link>(1000, link));
    measureDocument(options, "reply", reply, requestAndReply().replyTopic);
    measureFields(options, "two fields", sample::Reading{12.5, "C"});
    measureFields(options, "nine fields",
                  sample::Measurement{12.5,
                                      "litres per minute",
                                      4711,
                                      true,
                                      conv::UnixTime(1700000000.5),
                                      sample::Mode::FORWARD,
                                      {1.25, -7},
                                      "a note",
                                      {1, 20, 300}});
}

void run(Options const& options) {
    pinToOneProcessor();
    measureDocuments(options);
    measureDispatch(options);
    measurePaths(options);
}

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    return bench::runProgram(argc, argv, bench::run);
}
