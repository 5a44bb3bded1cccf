// What needs no broker, over a broker library that does nothing. In this file: writing and reading
// every kind of document, beside RapidJSON alone.

#include "in_process.hpp"
#include "rapidjson_documents.hpp"
#include "resources.hpp"
#include "samples.hpp"

#include <string>
#include <vector>

namespace bench {
namespace {

/// Both read what we write, into a value that they have read before.
template <class T>
void measureDocument(Options const& options, char const* name, T const& sample,
                     mqtt::Topic const& topic = "bench") {
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
        time("write", "RapidJSON", [&] { return rapid::write(value).GetSize(); });
        time("write", "ours", [&] {
            std::string payload;
            Data::serialize(topic, payload, sample);
            return payload.size();
        });
        time("read", "RapidJSON", [&] {
            rapid::read(text, value);
            return text.size();
        });
        time("read", "ours", [&] {
            Data::deserialize(topic, text, false, value);
            return text.size();
        });
    }
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
