#include "chaos/workload.hpp"

#include "requestreply/sample_data.hpp"

#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <algorithm>
#include <deque>

namespace chaos {

namespace {

using zym::common::Uuid;
using ErrorCode = mqtt::RequestReply::ErrorCode;

constexpr char const* TOPIC = "chaos/server";
constexpr char const* SUBTOPIC = "sub";
constexpr char const* SERVICE = "number";

std::string textOf(ErrorCode error) {
    return error == ErrorCode::SUCCESS   ? "answered"
           : error == ErrorCode::TIMEOUT ? "not answered in time"
           : error == ErrorCode::CANCELLED
               ? "cancelled"
               : "ended with code " + std::to_string(static_cast<int>(error));
}

/// Records the ends of one request. Lives longer than its request.
class RequestListener final : public mqtt::RequestReplyClient::Listener {
public:
    struct End {
        int times = 0;
        ErrorCode error = ErrorCode::NONE;
        unsigned int number = 0; ///< in the reply
    };

    /// @return `PENDING`, or the reason why no request was made
    ErrorCode request(mqtt::RequestReplyClient& client, Uuid const& id, unsigned int number) {
        return client.request(this, id, Uuid::NIL, std::make_shared<NumberData>(number), reply_,
                              nullptr, 1);
    }

    mqtt::test::Watched<End> end;

private:
    void onReply(unsigned int, std::string const&, Uuid const&, Uuid const&,
                 mqtt::RequestReplyData const&, ErrorCode error) override {
        end.change([&](End& one) { one = {one.times + 1, error, reply_->number}; });
    }

    std::shared_ptr<NumberData> const reply_ = std::make_shared<NumberData>();
};

/// Replies with the number that it was asked.
class NumberServer final : private mqtt::RequestReplyServer::Listener {
public:
    explicit NumberServer(TestBed& testBed)
        : report_(testBed.report), client_(testBed.newClient()) {
        server_.subscribe(this, Uuid::NIL, std::make_shared<NumberData>());
    }

private:
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const&, Uuid const&, Uuid const&,
                                                      mqtt::RequestReplyData const& requestData,
                                                      ErrorCode& /*error*/) override {
        constexpr std::size_t REMEMBERED = 200;
        auto const number = dynamic_cast<NumberData const&>(requestData).number;
        report_.count("requests carried out");
        // All requests of short-lived clients carry 0.
        report_.check(number == 0 || std::count(recent_.begin(), recent_.end(), number) == 0,
                      "request " + std::to_string(number) + " came twice");
        recent_.push_back(number);
        if (recent_.size() > REMEMBERED) {
            recent_.pop_front();
        }
        return std::make_shared<NumberData>(number);
    }

    Report& report_;
    std::deque<unsigned int> recent_; ///< used on the client's thread
    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::RequestReplyServer server_{*client_, TOPIC, SUBTOPIC, SERVICE};
};

/// Sends one request after the other: waits, uses a listener, cancels.
class RequestWorker final : public Worker {
public:
    RequestWorker(TestBed& on, std::string const& nameOfIt, bool persistent, unsigned firstNumber)
        : Worker(on, nameOfIt, 30),
          number_(firstNumber),
          client_(testBed.newClient({persistent, true, id_})) {}
    ~RequestWorker() override {
        requests_.release();
        checkEnds(0);
    }

private:
    bool step() override {
        count("requests made");
        ++number_;
        return random.percent(40) ? requestAndWait() : requestWithListener();
    }

    bool requestAndWait() {
        auto const reply = std::make_shared<NumberData>();
        auto const error =
            requests_.requestWait(id_, Uuid::NIL, std::make_shared<NumberData>(number_), reply, 1);
        return checkReply(error, reply->number);
    }

    bool requestWithListener() {
        constexpr std::size_t KEPT_LISTENERS = 50;
        auto& listener = listeners_.emplace_back();
        auto const result = listener.request(requests_, id_, number_);
        check(result == ErrorCode::PENDING, "a request is not made: " + textOf(result));
        if (random.percent(10)) {
            wait(0, 5);
            requests_.cancel();
        } else if (random.percent(20)) {
            requests_.waitEndOfRequest(1);
        }
        check(listener.end.waitFor([](auto const& end) { return end.times > 0; }, END_DEADLINE),
              "request " + std::to_string(number_) + " never ended");
        checkEnds(KEPT_LISTENERS);
        auto const end = listener.end.copy();
        return checkReply(end.error, end.number);
    }

    bool checkReply(ErrorCode error, unsigned int replied) {
        bool const success = error == ErrorCode::SUCCESS;
        count("requests " + textOf(error));
        check(success || error == ErrorCode::TIMEOUT || error == ErrorCode::CANCELLED,
              "a request " + textOf(error));
        check(!success || replied == number_,
              "sent " + std::to_string(number_) + ", got " + std::to_string(replied));
        return success;
    }

    /// A second end is noticed while the listener is kept.
    void checkEnds(std::size_t kept) {
        for (; listeners_.size() > kept; listeners_.pop_front()) {
            check(listeners_.front().end.copy().times == 1, "a request did not end exactly once");
        }
    }

    Uuid const id_ = mqtt::test::uniqueId();
    unsigned int number_;
    std::deque<RequestListener> listeners_;
    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::RequestReplyClient requests_{*client_, TOPIC, SUBTOPIC, SERVICE};
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

    /// Destroys the request client before or after the end of its request.
    void request(mqtt::MqttClient& client) {
        RequestListener listener;
        {
            mqtt::RequestReplyClient requests(client, TOPIC, SUBTOPIC, SERVICE);
            auto const result = listener.request(requests, mqtt::test::uniqueId(), 0);
            check(result == ErrorCode::PENDING, "a request is not made");
            wait(0, 10);
        }
        check(listener.end.copy().times == 1, "a request did not end once before its client did");
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
