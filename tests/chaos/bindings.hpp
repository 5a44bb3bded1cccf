#pragma once

#include "chaos/party.hpp"
#include "chaos/place.hpp"

#include "support/watched.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/time_base.hpp>

#include <memory>
#include <string>

namespace chaos {

/// A server that grants every binding, and tells its time.
class Host final : private mqtt::RequestReplyServer::Listener {
public:
    static zym::common::Uuid const ID;
    static char const* const TOPIC;

    explicit Host(Place& place);
    ~Host();

private:
    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& name, zym::common::Uuid const& clientUuid,
              zym::common::Uuid const& serverUuid, mqtt::RequestReplyData const& requestData,
              mqtt::RequestReply::ErrorCode& error) override;

    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::RequestReplyServer> bind_;
    std::unique_ptr<mqtt::RequestReplyServer> unbind_;
    std::unique_ptr<mqtt::SynchronizedTimeBaseMqttAdaptor> clock_;
};

/// Binds itself to the host and lets go again, in every way there is.
class Guest final : public Party, public zym::common::BinderProxy::Listener {
public:
    Guest(Place& place, std::string const& name);
    ~Guest() override;

    void prove() override;

private:
    using Error = zym::common::Binder::Error;
    struct Told {
        int bound = 0;
        int unbound = 0;
    };

    void step() override;
    bool visit();
    void bindWithListener();
    bool letGo();
    bool ended(Error error);
    void onBound(Error error) override;
    void onUnbound(Error error) override;

    Place& place_;
    support::Watched<Told> told_;
    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::BinderMqttProxy> proxy_;
};

/// Reads the host's time, again and again from the beginning.
class ClockReader final : public Party {
public:
    ClockReader(Place& place, std::string const& name);
    ~ClockReader() override;

    void prove() override;

private:
    void step() override;
    bool read();

    Place& place_;
    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::SynchronizedTimeBaseMqttProxy> proxy_;
};

} // namespace chaos
