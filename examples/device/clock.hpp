#pragma once

// The plant's time. A time base counts from a moment of the server's choice: here from the moment
// the device was started.

#include "plant.hpp"

#include <mqtt/time_base.hpp>

/// Answers whoever asks for the time. Made before the client is connected: a question that came
/// in between would find a clock half made.
class Clock final : public mqtt::SynchronizedTimeBaseMqttAdaptor {
public:
    explicit Clock(mqtt::MqttClient& client)
        : SynchronizedTimeBaseMqttAdaptor(client, PLANT, PLANT_ID) {}
    /// While a question is being answered, nothing may be gone.
    ~Clock() override { release(); }

    double localTimeBase() const override { return machineTime() - start_; }

    /// When it was zero, by the clock of this machine.
    double start() const { return start_; }

private:
    double machineTime() const { return SynchronizedTimeBaseMqttAdaptor::localTimeBase(); }

    double const start_ = machineTime();
};
