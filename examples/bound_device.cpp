// A device that is bound to one panel at a time, and a panel that binds itself to it. In an
// application the two sides are different programs.
//
// Usage: bound_device [HOST [PORT]]

#include <mqtt/binder_proxy.hpp>
#include <mqtt/time_base.hpp>

#include <iostream>
#include <memory>
#include <string>

using mqtt::RequestReply;
using zym::common::Binder;
using zym::common::Uuid;

Uuid const DEVICE_ID(17);
Uuid const PANEL_ID(18);
mqtt::Topic const DEVICE = "demo/device";

/// Answers "bind" and "unbind", on the client's own thread. A panel that is bound reads the
/// device's time, too: so the device provides it, on the same topic and with the same identifier.
class Device final : mqtt::RequestReplyServer::Listener {
public:
    explicit Device(mqtt::MqttClient& client)
        : time_(client, DEVICE, DEVICE_ID),
          bind_(client, DEVICE, "", "bind"),
          unbind_(client, DEVICE, "", "unbind") {
        bind_.subscribe(this, DEVICE_ID, std::make_shared<mqtt::BindRequestData>());
        unbind_.subscribe(this, DEVICE_ID, mqtt::NO_DATA);
    }

private:
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const& name, Uuid const& panel,
                                                      Uuid const& /*device*/,
                                                      mqtt::RequestReplyData const& /*data*/,
                                                      RequestReply::ErrorCode& error) override {
        if (!bound_.isNil() && bound_ != panel) {
            error = RequestReply::ErrorCode(16 + static_cast<int>(Binder::Error::REFUSED));
        } else {
            bound_ = name == "bind" ? panel : Uuid::NIL;
        }
        return mqtt::NO_DATA;
    }

    Uuid bound_; // nil while no panel is bound
    mqtt::SynchronizedTimeBaseMqttAdaptor time_;
    // Declared last and so destroyed first: their destructors wait for a request being handled.
    mqtt::RequestReplyServer bind_;
    mqtt::RequestReplyServer unbind_;
};

int main(int argc, char* argv[]) {
    std::string const host = argc > 1 ? argv[1] : "localhost";
    int const port = argc > 2 ? std::stoi(argv[2]) : 1883;
    mqtt::MqttClient client(DEVICE_ID, false, "", host, port, true);
    Device const device(client);

    mqtt::BinderMqttProxy binder(client, DEVICE, "", PANEL_ID, "demo/panel", nullptr);
    if (binder.bindSync(DEVICE_ID, 5) != Binder::Error::SUCCESS) {
        std::cout << "not bound" << std::endl;
        return 1;
    }
    std::cout << "bound; the time of the device is " << binder.timeBase() << " s" << std::endl;
    binder.unbindSync(5);
}
