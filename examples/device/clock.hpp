#pragma once

// The plant's time. A time base counts from a moment that the server chooses: here from the start
// of the device.

#include "plant.hpp"

#include <mqtt/time_base.hpp>

/// Answers requests for the time. Construct it before the client is connected: a request during its
/// construction would call a virtual function too early.
class Clock final : public mqtt::SynchronizedTimeBaseMqttAdaptor {
public:
    explicit Clock(mqtt::MqttClient& client)
        : SynchronizedTimeBaseMqttAdaptor(client, PLANT, PLANT_ID) {}
    /// Waits for a request being handled before any member is destroyed.
    ~Clock() override { release(); }

    double localTimeBase() const override { return machineTime() - start_; }

    /// The time of this machine's clock when the plant's time was zero.
    double start() const { return start_; }

private:
    double machineTime() const { return SynchronizedTimeBaseMqttAdaptor::localTimeBase(); }

    double const start_ = machineTime();
};
