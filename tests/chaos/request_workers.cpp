#include "chaos/workload.hpp"

#include <mqtt/payloads.hpp>
#include <mqtt/service.hpp>

#include <algorithm>
#include <deque>
#include <optional>

namespace chaos {

namespace {

using mqtt::ClientId;
using mqtt::ServerId;
using zym::common::Uuid;
using ErrorCode = mqtt::RequestReply::ErrorCode;

struct Number {
    unsigned int value = 0;
};
ZYM_MQTT_FIELDS(Number, value)

using Result = mqtt::Result<Number>;
using Caller = mqtt::Caller<Number, Number>;

mqtt::Service<Number, Number> const SERVICE{"chaos/server", "number", "sub"};
constexpr std::chrono::seconds TIMEOUT{1};

std::string textOf(ErrorCode error) {
    return error == ErrorCode::SUCCESS   ? "answered"
           : error == ErrorCode::TIMEOUT ? "not answered in time"
           : error == ErrorCode::CANCELLED
               ? "cancelled"
               : "ended with code " + std::to_string(static_cast<int>(error));
}

/// How often the function of a call was called, and with what.
struct End {
    int times = 0;
    Result result = ErrorCode::NONE;
};
using RecordedEnd = mqtt::test::Watched<End>;

Caller::Function recordIn(RecordedEnd& end) {
    return [&end](Result const& result) {
        end.change([&](End& one) { one = {one.times + 1, result}; });
    };
}

/// Replies with the number that it was asked.
class NumberServer {
public:
    explicit NumberServer(TestBed& testBed)
        : report_(testBed.report), client_(testBed.newClient()) {}

private:
    Number reply(Number const& request) {
        constexpr std::size_t REMEMBERED = 200;
        report_.count("requests carried out");
        // All requests of short-lived clients carry 0.
        report_.check(request.value == 0
                          || std::count(recent_.begin(), recent_.end(), request.value) == 0,
                      "request " + std::to_string(request.value) + " came twice");
        recent_.push_back(request.value);
        if (recent_.size() > REMEMBERED) {
            recent_.pop_front();
        }
        return request;
    }

    Report& report_;
    std::deque<unsigned int> recent_; ///< used on the client's thread
    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::Server<Number, Number> server_{*client_, SERVICE, ServerId(),
                                         [this](Number const& request) { return reply(request); }};
};

/// Sends one request after the other: waits, passes a function, cancels.
class RequestWorker final : public Worker {
public:
    RequestWorker(TestBed& on, std::string const& nameOfIt, bool persistent, unsigned firstNumber)
        : Worker(on, nameOfIt, 30),
          number_(firstNumber),
          client_(testBed.newClient({persistent, true, id_})) {}
    ~RequestWorker() override {
        requests_.reset();
        checkEnds(0);
    }

private:
    bool step() override {
        count("requests made");
        ++number_;
        return random.percent(40) ? checkResult(requests_->callWait({number_}, TIMEOUT))
                                  : callWithFunction();
    }

    bool callWithFunction() {
        constexpr std::size_t KEPT_ENDS = 50;
        auto& end = ends_.emplace_back();
        auto const code = requests_->call({number_}, TIMEOUT, recordIn(end));
        check(code == ErrorCode::PENDING, "a request is not made: " + textOf(code));
        if (random.percent(10)) {
            wait(0, 5);
            requests_->cancel();
        }
        check(end.waitFor([](End const& one) { return one.times > 0; }, END_DEADLINE),
              "request " + std::to_string(number_) + " never ended");
        checkEnds(KEPT_ENDS);
        return checkResult(end.copy().result);
    }

    bool checkResult(Result const& result) {
        auto const code = result.code();
        count("requests " + textOf(code));
        check(result || code == ErrorCode::TIMEOUT || code == ErrorCode::CANCELLED,
              "a request " + textOf(code));
        check(!result || result->value == number_, "another reply than to this request");
        return static_cast<bool>(result);
    }

    /// A second end is noticed while the first one is kept.
    void checkEnds(std::size_t kept) {
        for (; ends_.size() > kept; ends_.pop_front()) {
            check(ends_.front().copy().times == 1, "a request did not end exactly once");
        }
    }

    Uuid const id_ = mqtt::test::uniqueId();
    unsigned int number_;
    std::deque<RecordedEnd> ends_;
    std::unique_ptr<mqtt::MqttClient> client_;
    std::optional<Caller> requests_{std::in_place, *client_, SERVICE, ClientId(id_), ServerId()};
};

/// Makes a client, uses it a little, and destroys it in any state.
class ShortLivedClients final : public Worker, private mqtt::MqttClient::Subscriber {
public:
    explicit ShortLivedClients(TestBed& on)
        : Worker(on, "short-lived clients", 100), port_(testBed.newProxy()) {}

private:
    bool step() override {
        mqtt::MqttClient client(mqtt::test::uniqueId(), random.percent(30), "short-lived",
                                testBed.broker.host(), port_, true,
                                testBed.broker.connectionOptions());
        count("clients made and destroyed");
        static_cast<void>(client.subscribe("chaos/#", this, 0));
        mqtt::MqttData<conv::ServiceStatus> endpoint(client, "chaos/short-lived");
        endpoint.subscribe(nullptr, 0);
        endpoint.publish();
        request(client);
        wait(0, 50);
        client.release(this);
        if (random.percent(50)) {
            client.disconnect(1);
        }
        return true;
    }

    /// Destroys the caller before or after the end of its call.
    void request(mqtt::MqttClient& client) {
        RecordedEnd end;
        {
            Caller caller(client, SERVICE, ClientId(mqtt::test::uniqueId()), ServerId());
            auto const code = caller.call({0}, TIMEOUT, recordIn(end));
            check(code == ErrorCode::PENDING, "a request is not made");
            wait(0, 10);
        }
        check(end.copy().times == 1, "a request did not end once before its caller did");
    }

    void onMqttMessage(int, mqtt::Topic const&, std::string const&) override {
        count("messages to short-lived clients");
    }

    int const port_;
};

} // namespace

void addRequestWorkers(TestBed& testBed, Services& services) {
    services.servers.push_back(std::make_shared<NumberServer>(testBed));
    services.workers.push_back(std::make_unique<RequestWorker>(testBed, "requests", false, 1));
    services.workers.push_back(
        std::make_unique<RequestWorker>(testBed, "persistent requests", true, 1000000000));
    services.workers.push_back(std::make_unique<ShortLivedClients>(testBed));
}

} // namespace chaos
