#include "chaos/bindings.hpp"

#include "support/test_client.hpp"
#include "support/timeout_factor.hpp"

namespace chaos {

namespace {

using zym::common::Uuid;
using Error = zym::common::Binder::Error;

/// What has not ended by then never will: beyond the time-outs of all that a binding consists of.
constexpr std::chrono::seconds NEVER{90 * support::TIMEOUT_FACTOR};

} // namespace

Uuid const Host::ID{4711};
char const* const Host::TOPIC = "chaos/host";

Host::Host(Place& place) {
    client_ = support::testClient(place.broker.host(), place.newLine().port());
    bind_ = std::make_unique<mqtt::RequestReplyServer>(*client_, TOPIC, "", "bind");
    unbind_ = std::make_unique<mqtt::RequestReplyServer>(*client_, TOPIC, "", "unbind");
    bind_->subscribe(this, ID, std::make_shared<mqtt::BindRequestData>());
    unbind_->subscribe(this, ID, mqtt::NO_DATA);
    clock_ = std::make_unique<mqtt::SynchronizedTimeBaseMqttAdaptor>(*client_, TOPIC, ID);
}

Host::~Host() {
    bind_->release();
    unbind_->release();
}

std::shared_ptr<mqtt::RequestReplyData>
Host::onRequest(std::string const& /*name*/, Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
                mqtt::RequestReplyData const& /*requestData*/,
                mqtt::RequestReply::ErrorCode& /*error*/) {
    return mqtt::NO_DATA;
}

Guest::Guest(Place& place, std::string const& name) : Party(name, place.seed), place_(place) {
    auto const id = support::uniqueId();
    client_ = support::testClient(place.broker.host(), place.newLine().port(), {false, true, id});
    proxy_ =
        std::make_unique<mqtt::BinderMqttProxy>(*client_, Host::TOPIC, "", id, "chaos/guest", this);
}

Guest::~Guest() {
    end();
    proxy_.reset();
}

void Guest::step() {
    visit();
    pause(0, 50);
}

/// Whether it was bound. Not bound in the end.
bool Guest::visit() {
    place_.findings.count("bindings tried");
    auto const before = told_.copy();
    bool bound = false;
    if (dice().percent(60)) {
        auto const error = proxy_->bindSync(Host::ID, 1);
        bound = error == Error::SUCCESS;
        if (!bound && !ended(error)) {
            place_.findings.breach(name() + ": bindSync "
                                   + std::to_string(static_cast<int>(error)));
        }
    } else {
        bindWithListener();
    }
    bool const free = letGo();
    auto const after = told_.copy();
    if (after.bound > before.bound + 1) {
        place_.findings.breach(name() + ": told twice that a binding has ended");
    }
    if (after.unbound != before.unbound + 1 && free) {
        place_.findings.breach(name() + ": not told once that it is not bound any more");
    }
    place_.findings.count("bindings made", bound ? 1 : 0);
    return bound;
}

bool Guest::ended(Error error) {
    return error == Error::TIMEOUT || error == Error::NOT_SYNCHRONIZED;
}

/// Half of them are called off at once.
void Guest::bindWithListener() {
    auto const before = told_.copy().bound;
    auto const error = proxy_->bind(Host::ID, 1);
    if (error != Error::SUCCESS) {
        place_.findings.breach(name() + ": bind " + std::to_string(static_cast<int>(error)));
    } else if (dice().percent(50)) {
        pause(0, 20);
    } else if (!told_.waitFor([&](Told const& told) { return told.bound > before; }, NEVER)) {
        place_.findings.breach(name() + ": a binding never ended");
    }
}

/// Whether there was anything to let go.
bool Guest::letGo() {
    auto const before = told_.copy().unbound;
    bool const waiting = dice().percent(50);
    auto const error = waiting ? proxy_->unbindSync(1) : proxy_->unbind(1);
    if (error == Error::NOT_BOUND) {
        return false;
    }
    if (error != Error::SUCCESS) {
        place_.findings.breach(name() + ": unbind " + std::to_string(static_cast<int>(error)));
    } else if (!told_.waitFor([&](Told const& told) { return told.unbound > before; }, NEVER)) {
        place_.findings.breach(name() + ": an unbinding never ended");
    }
    return true;
}

void Guest::prove() {
    if (!support::eventually([this] { return visit(); }, NEVER)) {
        place_.findings.breach(name() + " cannot bind itself any more");
    }
}

void Guest::onBound(Error /*error*/) {
    told_.change([](Told& told) { ++told.bound; });
}

void Guest::onUnbound(Error /*error*/) {
    told_.change([](Told& told) { ++told.unbound; });
}

ClockReader::ClockReader(Place& place, std::string const& name)
    : Party(name, place.seed), place_(place) {
    auto const id = support::uniqueId();
    client_ = support::testClient(place.broker.host(), place.newLine().port(), {false, true, id});
    proxy_ =
        std::make_unique<mqtt::SynchronizedTimeBaseMqttProxy>(*client_, Host::TOPIC, id, nullptr);
}

ClockReader::~ClockReader() {
    end();
    proxy_.reset();
}

void ClockReader::step() {
    read();
    pause(0, 100);
}

bool ClockReader::read() {
    bool const known = proxy_->synchronize(Host::ID, 3);
    place_.findings.count(known ? "clock readings made" : "clock readings that ran out of time");
    if (known != proxy_->isSynchronized()) {
        place_.findings.breach(name() + ": does not know whether it knows the time");
    }
    proxy_->stop();
    return known;
}

void ClockReader::prove() {
    if (!support::eventually([this] { return read(); }, NEVER)) {
        place_.findings.breach(name() + " cannot read the time any more");
    }
}

} // namespace chaos
