#include "chaos/requests.hpp"

#include "support/eventually.hpp"
#include "support/test_client.hpp"
#include "support/timeout_factor.hpp"

#include <zym/common/lwjson.hpp>

#include <algorithm>
#include <sstream>

namespace chaos {

namespace {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;
using ErrorCode = mqtt::RequestReply::ErrorCode;

/// A request that has not ended by then never will: far beyond its time-out of one second, which
/// comes by way of the broker.
constexpr std::chrono::seconds NEVER{60 * support::TIMEOUT_FACTOR};

constexpr std::size_t REMEMBERED = 200;
constexpr std::size_t KEPT = 50;

std::string text(ErrorCode error) {
    switch (error) {
    case ErrorCode::SUCCESS:
        return "answered";
    case ErrorCode::TIMEOUT:
        return "not answered in time";
    case ErrorCode::CANCELLED:
        return "called off";
    default:
        return "ended with code " + std::to_string(static_cast<int>(error));
    }
}

} // namespace

void NumberData::deserialize(Deserializer& in) {
    Deserializer::extractValue(in.getMember("number"), number, "");
}

void NumberData::serialize(Serializer& out) const {
    out.appendKey("number");
    out.appendValue(std::to_string(number).c_str());
}

bool Ending::wait(std::chrono::milliseconds deadline) const {
    return state_.waitFor([](State const& state) { return state.times > 0; }, deadline);
}

void Ending::onReply(unsigned int /*requestId*/, std::string const& /*name*/,
                     zym::common::Uuid const& /*clientUuid*/,
                     zym::common::Uuid const& /*serverUuid*/,
                     mqtt::RequestReplyData const& /*data*/, ErrorCode error) {
    state_.change([&](State& state) {
        ++state.times;
        state.error = error;
        state.number = data_->number;
    });
}

Answerer::Answerer(Place& place, std::string const& topic) : place_(place), topic_(topic) {
    client_ = support::testClient(place.broker.host(), place.newLine().port());
    server_ = std::make_unique<mqtt::RequestReplyServer>(*client_, topic, "sub", "number");
    server_->subscribe(this, zym::common::Uuid::NIL, std::make_shared<NumberData>());
}

Answerer::~Answerer() {
    server_->release();
}

std::shared_ptr<mqtt::RequestReplyData>
Answerer::onRequest(std::string const& /*name*/, zym::common::Uuid const& /*clientUuid*/,
                    zym::common::Uuid const& /*serverUuid*/,
                    mqtt::RequestReplyData const& requestData, ErrorCode& /*error*/) {
    auto const number = dynamic_cast<NumberData const&>(requestData).number;
    place_.findings.count("requests carried out");
    // Visitors all ask with 0.
    if (number != 0 && std::find(recent_.begin(), recent_.end(), number) != recent_.end()) {
        place_.findings.breach(topic_ + ": request " + std::to_string(number) + " came twice");
    }
    recent_.push_back(number);
    if (recent_.size() > REMEMBERED) {
        recent_.pop_front();
    }
    return std::make_shared<NumberData>(number);
}

Asker::Asker(Place& place, std::string const& name, std::string const& topic, bool persistent,
             std::uint32_t firstNumber)
    : Party(name, place.seed), place_(place), id_(support::uniqueId()), number_(firstNumber) {
    client_ =
        support::testClient(place.broker.host(), place.newLine().port(), {persistent, true, id_});
    requests_ = std::make_unique<mqtt::RequestReplyClient>(*client_, topic, "sub", "number");
}

Asker::~Asker() {
    end();
    requests_.reset();
    forgetOldEndings(0);
}

void Asker::step() {
    if (dice().percent(40)) {
        askAndWait();
    } else {
        askWithListener();
    }
    pause(0, 30);
}

Asker::ErrorCode Asker::askAndWait() {
    auto const number = ++number_;
    auto const answer = std::make_shared<NumberData>();
    auto const error = requests_->requestWait(id_, zym::common::Uuid::NIL,
                                              std::make_shared<NumberData>(number), answer, 1);
    place_.findings.count("requests made");
    judgeReply(error, number, answer->number);
    return error;
}

void Asker::askWithListener() {
    auto const number = ++number_;
    auto const answer = std::make_shared<NumberData>();
    endings_.push_back(std::make_unique<Ending>(answer));
    Ending& ending = *endings_.back();
    auto const result =
        requests_->request(&ending, id_, zym::common::Uuid::NIL,
                           std::make_shared<NumberData>(number), answer, nullptr, 1);
    place_.findings.count("requests made");
    if (result != ErrorCode::PENDING) {
        place_.findings.breach(name() + ": a request is not made: " + text(result));
        endings_.pop_back();
        return;
    }
    if (dice().percent(10)) {
        pause(0, 5);
        requests_->cancel();
    } else if (dice().percent(20)) {
        requests_->waitEndOfRequest(1);
    }
    judge(ending, number);
    forgetOldEndings(KEPT);
}

void Asker::judge(Ending const& ending, std::uint32_t number) {
    if (!ending.wait(NEVER)) {
        place_.findings.breach(name() + ": request " + std::to_string(number) + " never ended");
        requests_->cancel();
        return;
    }
    auto const state = ending.state();
    judgeReply(state.error, number, state.number);
}

void Asker::judgeReply(ErrorCode error, std::uint32_t asked, std::uint32_t answered) {
    place_.findings.count("requests " + text(error));
    if (error == ErrorCode::SUCCESS && asked != answered) {
        place_.findings.breach(name() + ": asked " + std::to_string(asked) + ", answered "
                               + std::to_string(answered));
    } else if (error != ErrorCode::SUCCESS && error != ErrorCode::TIMEOUT
               && error != ErrorCode::CANCELLED) {
        place_.findings.breach(name() + ": a request " + text(error));
    }
}

/// An end that comes again is noticed for as long as the last requests' endings are kept.
void Asker::forgetOldEndings(std::size_t kept) {
    while (endings_.size() > kept) {
        int const times = endings_.front()->state().times;
        if (times != 1) {
            place_.findings.breach(name() + ": a request ended " + std::to_string(times)
                                   + " times");
        }
        endings_.pop_front();
    }
}

void Asker::prove() {
    bool const answered =
        support::eventually([this] { return askAndWait() == ErrorCode::SUCCESS; }, NEVER);
    if (!answered) {
        place_.findings.breach(name() + " gets no answer any more");
    }
}

} // namespace chaos
