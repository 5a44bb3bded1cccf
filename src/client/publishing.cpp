#include "client/arguments.hpp"
#include "client/engine.hpp"
#include "common/wait.hpp"
#include "mqtt/client.hpp"

namespace mqtt {

using Error = MqttClient::Error;

Error MqttClient::publish(Topic const& topic, std::string const& payload, int qos, bool retain) {
    bool awaitable = false;
    return send(nullptr, topic, payload, qos, retain, awaitable);
}

Error MqttClient::publishWait(Topic const& topic, std::string const& payload, int qos, bool retain,
                              conv::SecondsDuration timeout) {
    bool awaitable = false;
    if (onWorkerThread()) {
        // The acknowledgement would have to be read by the very thread that waits for it.
        auto const result = send(nullptr, topic, payload, qos, retain, awaitable);
        return awaitable ? Error::TIMEOUT : result;
    }
    // Held from before the publication: its acknowledgement cannot come too early to be seen.
    std::unique_lock lock(deliveryMutex_);
    lastPublished_ = -1;
    int mid = 0;
    auto const result = send(&mid, topic, payload, qos, retain, awaitable);
    if (!awaitable) {
        return result;
    }
    auto const deadline = timeout.toTimepoint(std::chrono::steady_clock::now());
    bool const done = waitUntil(delivered_, lock, deadline, [&] { return lastPublished_ == mid; });
    if (done) {
        engine_->tuning.answered();
    }
    return done ? Error::SUCCESS : Error::TIMEOUT;
}

void MqttClient::on_publish(int mid) {
    std::lock_guard const lock(deliveryMutex_);
    lastPublished_ = mid;
    delivered_.notify_all();
}

/// Hands a publication to the broker library or, without a connection, to the queue.
/// `awaitable` is set when an acknowledgement of `mid` will come.
Error MqttClient::send(int* mid, Topic const& topic, std::string const& payload, int qos,
                       bool retain, bool& awaitable) {
    auto const sizes = checkSizes(topic, payload.size(), qos);
    if (sizes != Error::SUCCESS) {
        return sizes;
    }
    std::lock_guard const lock(engine_->gate.mutex);
    auto result = Error::NO_CONN;
    if (engine_->gate.online) {
        engine_->tuning.issued(qos != 0);
        result = static_cast<Error>(mosqpp::mosquittopp::publish(mid, topic.text().c_str(),
                                                                 static_cast<int>(payload.size()),
                                                                 payload.data(), qos, retain));
        awaitable = result == Error::SUCCESS;
        // The library has kept it and sends it with the next connection.
        if (result == Error::NO_CONN && qos != 0) {
            return Error::SUCCESS;
        }
    } else {
        auto const refused = checkPublication(topic, payload.size(), qos);
        if (refused != Error::SUCCESS) {
            return refused;
        }
    }
    if (result != Error::NO_CONN && result != Error::CONN_LOST) {
        return result;
    }
    queue_.push_back({topic, payload, qos, retain});
    return Error::SUCCESS;
}

Error MqttClient::clear(Topic const& topic) {
    auto const refused = checkPublication(topic, 0, 2);
    if (refused != Error::SUCCESS) {
        return refused;
    }
    std::lock_guard const lock(engine_->gate.mutex);
    if (!engine_->gate.online) {
        return Error::NO_CONN;
    }
    engine_->tuning.issued();
    auto const result = static_cast<Error>(
        mosqpp::mosquittopp::publish(nullptr, topic.text().c_str(), 0, nullptr, 2, true));
    // Taken just as the connection went: the library carries it out with the next one.
    return result == Error::NO_CONN ? Error::SUCCESS : result;
}

} // namespace mqtt
