#include "chaos/workers.hpp"

#include "requestreply/sample_data.hpp"

#include "support/test_client.hpp"
#include "support/watched.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <algorithm>
#include <deque>

namespace chaos {

namespace {

using zym::common::Uuid;
using ErrorCode = mqtt::RequestReply::ErrorCode;

constexpr char const* SUBTOPIC = "sub";
constexpr char const* SERVICE = "number";

std::string textOf(ErrorCode error) {
    switch (error) {
    case ErrorCode::SUCCESS:
        return "answered";
    case ErrorCode::TIMEOUT:
        return "not answered in time";
    case ErrorCode::CANCELLED:
        return "cancelled";
    default:
        return "ended with code " + std::to_string(static_cast<int>(error));
    }
}

/// Records the ends of one request. Lives longer than its request.
class RequestListener final : public mqtt::RequestReplyClient::Listener {
public:
    struct End {
        int times = 0;
        ErrorCode error = ErrorCode::NONE;
        unsigned int number = 0; ///< in the reply
    };

    bool waitForEnd() const {
        return end_.waitFor([](End const& end) { return end.times > 0; }, END_DEADLINE);
    }
    End end() const { return end_.copy(); }

    std::shared_ptr<NumberData> const reply = std::make_shared<NumberData>();

private:
    void onReply(unsigned int /*requestId*/, std::string const& /*name*/,
                 Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
                 mqtt::RequestReplyData const& /*data*/, ErrorCode error) override {
        end_.change([&](End& end) { end = {end.times + 1, error, reply->number}; });
    }

    support::Watched<End> end_;
};

class NumberServer final : public Server, private mqtt::RequestReplyServer::Listener {
public:
    NumberServer(TestBed& testBed, std::string const& topic)
        : report_(testBed.report),
          topic_(topic),
          client_(support::testClient(testBed.broker.host(), testBed.newProxy())),
          server_(*client_, topic, SUBTOPIC, SERVICE) {
        server_.subscribe(this, Uuid::NIL, std::make_shared<NumberData>());
    }
    ~NumberServer() override { server_.release(); }

private:
    std::shared_ptr<mqtt::RequestReplyData>
    onRequest(std::string const& /*name*/, Uuid const& /*clientUuid*/, Uuid const& /*serverUuid*/,
              mqtt::RequestReplyData const& requestData, ErrorCode& /*error*/) override {
        constexpr std::size_t REMEMBERED = 200;
        auto const number = dynamic_cast<NumberData const&>(requestData).number;
        report_.count("requests carried out");
        // All requests of short-lived clients carry 0.
        report_.check(number == 0
                          || std::find(recent_.begin(), recent_.end(), number) == recent_.end(),
                      topic_ + ": request " + std::to_string(number) + " came twice");
        recent_.push_back(number);
        if (recent_.size() > REMEMBERED) {
            recent_.pop_front();
        }
        return std::make_shared<NumberData>(number);
    }

    Report& report_;
    std::string const topic_;
    std::deque<unsigned int> recent_; ///< used on the client's thread
    std::unique_ptr<mqtt::MqttClient> client_;
    mqtt::RequestReplyServer server_;
};

class RequestWorker final : public Worker {
public:
    RequestWorker(TestBed& on, std::string const& name, std::string const& topic, bool persistent,
                  std::uint32_t firstNumber)
        : Worker(on, name),
          number_(firstNumber),
          client_(support::testClient(testBed.broker.host(), testBed.newProxy(),
                                      {persistent, true, id_})),
          requests_(
              std::make_unique<mqtt::RequestReplyClient>(*client_, topic, SUBTOPIC, SERVICE)) {}
    ~RequestWorker() override {
        end();
        requests_.reset();
        checkEnds(0);
    }

    void verify() override {
        check(support::eventually([this] { return requestAndWait() == ErrorCode::SUCCESS; },
                                  END_DEADLINE),
              "gets no reply any more");
    }

private:
    void step() override {
        if (random.percent(40)) {
            requestAndWait();
        } else {
            requestWithListener();
        }
        wait(0, 30);
    }

    ErrorCode requestAndWait() {
        auto const number = ++number_;
        auto const reply = std::make_shared<NumberData>();
        auto const error =
            requests_->requestWait(id_, Uuid::NIL, std::make_shared<NumberData>(number), reply, 1);
        count("requests made");
        checkReply(error, number, reply->number);
        return error;
    }

    void requestWithListener() {
        constexpr std::size_t KEPT_LISTENERS = 50;
        auto const number = ++number_;
        auto listener = std::make_unique<RequestListener>();
        auto const result =
            requests_->request(listener.get(), id_, Uuid::NIL, std::make_shared<NumberData>(number),
                               listener->reply, nullptr, 1);
        count("requests made");
        if (result != ErrorCode::PENDING) {
            check(false, "a request is not made: " + textOf(result));
            return;
        }
        if (random.percent(10)) {
            wait(0, 5);
            requests_->cancel();
        } else if (random.percent(20)) {
            requests_->waitEndOfRequest(1);
        }
        if (listener->waitForEnd()) {
            checkReply(listener->end().error, number, listener->end().number);
        } else {
            check(false, "request " + std::to_string(number) + " never ended");
            requests_->cancel();
        }
        listeners_.push_back(std::move(listener));
        checkEnds(KEPT_LISTENERS);
    }

    void checkReply(ErrorCode error, unsigned int sent, unsigned int replied) {
        count("requests " + textOf(error));
        check(error == ErrorCode::SUCCESS || error == ErrorCode::TIMEOUT
                  || error == ErrorCode::CANCELLED,
              "a request " + textOf(error));
        check(error != ErrorCode::SUCCESS || sent == replied,
              "sent " + std::to_string(sent) + ", got " + std::to_string(replied));
    }

    /// A second end is noticed while the listener is kept.
    void checkEnds(std::size_t kept) {
        for (; listeners_.size() > kept; listeners_.pop_front()) {
            check(listeners_.front()->end().times == 1, "a request did not end exactly once");
        }
    }

    Uuid const id_ = support::uniqueId();
    std::uint32_t number_;
    std::deque<std::unique_ptr<RequestListener>> listeners_;
    std::unique_ptr<mqtt::MqttClient> client_;
    std::unique_ptr<mqtt::RequestReplyClient> requests_;
};

class ShortLivedClients final : public Worker, private mqtt::MqttClient::Subscriber {
public:
    ShortLivedClients(TestBed& on, std::string const& topic)
        : Worker(on, "short-lived clients"), topic_(topic), port_(testBed.newProxy()) {}
    ~ShortLivedClients() override { end(); }

private:
    void step() override {
        mqtt::MqttClient client(support::uniqueId(), random.percent(30), "short-lived",
                                testBed.broker.host(), port_, true);
        count("clients made and destroyed");
        use(client);
        if (random.percent(50)) {
            client.disconnect(1);
        }
        wait(0, 100);
    }

    void use(mqtt::MqttClient& client) {
        static_cast<void>(client.subscribe("chaos/#", this, 0));
        mqtt::MqttData<conv::ServiceStatus> endpoint(client, "chaos/short-lived");
        endpoint.subscribe(nullptr, 0);
        endpoint.publish();
        request(client);
        wait(0, 50);
        client.release(this);
    }

    /// Destroys the request client before or after the end of its request.
    void request(mqtt::MqttClient& client) {
        RequestListener listener;
        {
            mqtt::RequestReplyClient requests(client, topic_, SUBTOPIC, SERVICE);
            auto const result =
                requests.request(&listener, support::uniqueId(), Uuid::NIL,
                                 std::make_shared<NumberData>(0), listener.reply, nullptr, 1);
            check(result == ErrorCode::PENDING, "a request is not made");
            wait(0, 10);
        }
        check(listener.end().times == 1, "a request did not end once before its client did");
    }

    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& /*payload*/) override {
        count("messages to short-lived clients");
    }

    std::string const topic_;
    int const port_;
};

} // namespace

std::unique_ptr<Server> makeNumberServer(TestBed& testBed, std::string const& topic) {
    return std::make_unique<NumberServer>(testBed, topic);
}

std::unique_ptr<Worker> makeRequestWorker(TestBed& testBed, std::string const& name,
                                          std::string const& topic, bool persistent,
                                          std::uint32_t firstNumber) {
    return std::make_unique<RequestWorker>(testBed, name, topic, persistent, firstNumber);
}

std::unique_ptr<Worker> makeShortLivedClients(TestBed& testBed, std::string const& topic) {
    return std::make_unique<ShortLivedClients>(testBed, topic);
}

} // namespace chaos
