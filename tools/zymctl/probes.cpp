#include "probes.hpp"

#include "plain_client.hpp"

#include <algorithm>
#include <memory>
#include <vector>

using Message = PlainClient::Message;

bool supportsQos(Context& context, std::string const& base, int qos) {
    PlainClient client(context);
    auto const topic = base + "/qos" + std::to_string(qos);
    auto const deadline = context.settings.deadline();
    Message message;
    return client.connect() && client.subscribe(topic, qos, deadline) == qos
           && client.publish(topic, "x", qos, false, deadline)
           && client.receive(topic, message, deadline) && message.qos == qos;
}

bool keepsRetained(Context& context, std::string const& base) {
    PlainClient writer(context);
    PlainClient reader(context);
    auto const topic = base + "/retained";
    auto const deadline = context.settings.deadline();
    Message message;
    bool const kept = writer.connect() && writer.publish(topic, "x", 1, true, deadline)
                      && reader.connect() && reader.subscribe(topic, 0, deadline) >= 0
                      && reader.receive(topic, message, deadline) && message.retained;
    if (writer.isConnected()) {
        writer.publish(topic, "", 1, true, deadline);
    }
    return kept;
}

bool supportsWildcard(Context& context, std::string const& base, char wildcard) {
    PlainClient client(context);
    auto const topic = base + "/wildcard/" + (wildcard == '+' ? "plus" : "hash/level");
    auto const deadline = context.settings.deadline();
    Message message;
    return client.connect() && client.subscribe(base + "/wildcard/" + wildcard, 0, deadline) >= 0
           && client.publish(topic, "x", 0, false, deadline)
           && client.receive(topic, message, deadline);
}

std::size_t largestPayload(Context& context, std::string const& base, std::size_t limit) {
    constexpr std::size_t SMALLEST = 1024;
    PlainClient client(context);
    auto const topic = base + "/size";
    std::size_t largest = 0;
    if (!client.connect() || client.subscribe(topic, 0, context.settings.deadline()) < 0) {
        return largest;
    }
    for (auto size = SMALLEST; size <= limit; size *= 2) {
        auto const deadline = context.settings.deadline();
        Message message;
        if (!client.publish(topic, std::string(size, 'x'), 0, false, deadline)
            || !client.receive(topic, message, deadline) || message.payload.size() != size) {
            break;
        }
        largest = size;
    }
    return largest;
}

double exchangeMs(Context& context, std::string const& base, int qos) {
    constexpr std::size_t ROUNDS = 30;   // at first the kernel acknowledges at once
    constexpr std::size_t MEASURED = 11; // the last ones
    PlainClient client(context);
    auto const topic = base + "/delay";
    std::vector<double> times;
    if (client.connect()) {
        client.subscribe(topic, 0, context.settings.deadline());
    }
    Message message;
    for (std::size_t i = 0; i < ROUNDS; ++i) {
        auto const start = Clock::now();
        auto const deadline = context.settings.deadline();
        if (!client.publish(topic, "x", qos, false, deadline)
            || !client.receive(topic, message, deadline)) {
            return -1;
        }
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    std::sort(times.end() - MEASURED, times.end());
    return times[ROUNDS - 1 - MEASURED / 2];
}

bool keepsOrderOfUnsubscribe(Context& context, std::string const& base) {
    constexpr int ROUNDS = 10;
    PlainClient client(context);
    auto const topic = base + "/order";
    Message message;
    bool kept = client.connect() && client.subscribe(topic, 0, context.settings.deadline()) >= 0;
    for (int i = 0; kept && i < ROUNDS; ++i) {
        auto const deadline = context.settings.deadline();
        client.acknowledgements.clear();
        std::vector<int> const sent{client.sendUnsubscribe(topic), client.sendSubscribe(topic, 0)};
        kept = client.wait(deadline, [&] { return client.acknowledgements.size() == sent.size(); })
               && client.acknowledgements == sent && client.publish(topic, "x", 0, false, deadline)
               && client.receive(topic, message, deadline);
    }
    return kept;
}

bool publishesWill(Context& context, std::string const& base) {
    auto writer = std::make_unique<PlainClient>(context);
    PlainClient reader(context);
    auto const topic = base + "/will";
    auto const deadline = context.settings.deadline();
    Message message;
    writer->setWill(topic, "x");
    bool const ready =
        reader.connect() && reader.subscribe(topic, 0, deadline) >= 0 && writer->connect();
    writer.reset(); // without a DISCONNECT packet
    return ready && reader.receive(topic, message, deadline);
}

bool hasNothingRetained(Context& context, std::string const& base) {
    constexpr auto LONG_ENOUGH = std::chrono::milliseconds(500);
    PlainClient client(context);
    return client.connect() && client.subscribe(base + "/#", 0, context.settings.deadline()) >= 0
           && !client.wait(Clock::now() + LONG_ENOUGH, [&] { return !client.messages.empty(); });
}
