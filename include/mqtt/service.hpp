#pragma once

#include "mqtt/export.hpp"
#include "mqtt/fields.hpp"
#include "mqtt/request_reply.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

// Services from functions: a server is a function from a request to a reply or an error, and a call
// has the reply or the error as its result. On the broker they are the same as services made with
// `RequestReplyServer` and `RequestReplyClient`. docs/guides/request-reply.md has both sides of
// one.

namespace mqtt {

/// The identifier of one who sends requests: the last segment of the topics of a call.
struct ClientId {
    explicit ClientId(zym::common::Uuid const& id) : uuid(id) {}
    zym::common::Uuid uuid;
};

/// The identifier of one who answers: a segment after the base topic.
struct ServerId {
    /// The service has one server only; its topics have no such segment.
    ServerId() = default;
    explicit ServerId(zym::common::Uuid const& id) : uuid(id) {}
    zym::common::Uuid uuid = zym::common::Uuid::NIL;
};

/// A request or a reply without fields.
struct Nothing {};

template <>
class Payload<Nothing> final : public RequestReplyData {
public:
    Payload() = default;
    explicit Payload(Nothing /*initial*/) {}
    void deserialize(zym::common::lwjson::Deserializer& /*in*/) override {}
    void serialize(zym::common::lwjson::Serializer& /*out*/) const override {}

    Nothing value;
};

template <class T>
inline constexpr bool IS_PAYLOAD = fields::HAS_FIELDS<T> || std::is_same_v<T, Nothing>;

/// A call has ended with SUCCESS, but the fields of the reply cannot be read.
inline constexpr RequestReply::ErrorCode UNREADABLE_REPLY{8};

/// What a service has answered, or how a call has ended: a value, or a code other than SUCCESS.
template <class T>
class [[nodiscard]] Result {
public:
    using ErrorCode = RequestReply::ErrorCode;

    // Implicit, so that a server's function returns a value or an error as it is.
    Result(T value) : value_(std::move(value)) {}
    /// @throws std::invalid_argument for SUCCESS, which has a value
    Result(ErrorCode code) : code_(code) {
        if (code == ErrorCode::SUCCESS) {
            throw std::invalid_argument("A successful result needs a value");
        }
    }
    /// An error of the service itself.
    /// @param error a value of the service's own enumeration of type `std::uint8_t`
    /// @throws std::invalid_argument for values below 16, which have a meaning for every service
    template <class Error, class = std::enable_if_t<std::is_enum_v<Error>>>
    Result(Error error) : code_(codeOf(error)) {
        if (code_ < ErrorCode::APPLICATION) {
            throw std::invalid_argument("The errors of a service begin at 16");
        }
    }

    /// Whether there is a value.
    explicit operator bool() const { return value_.has_value(); }
    /// @throws std::bad_optional_access there is none
    T const& value() const& { return value_.value(); }
    T value() && { return std::move(value_).value(); }
    /// @throws std::bad_optional_access there is none
    T const& operator*() const { return value_.value(); }
    T const* operator->() const { return &value_.value(); }

    /// SUCCESS with a value.
    ErrorCode code() const { return code_; }

    template <class Error, class = std::enable_if_t<std::is_enum_v<Error>>>
    friend bool operator==(Result const& result, Error error) {
        return result.code_ == codeOf(error);
    }
    template <class Error, class = std::enable_if_t<std::is_enum_v<Error>>>
    friend bool operator!=(Result const& result, Error error) {
        return !(result == error);
    }

private:
    template <class Error>
    static constexpr ErrorCode codeOf(Error error) {
        static_assert(std::is_same_v<std::underlying_type_t<Error>, std::uint8_t>,
                      "The errors of a service have 8 bits: enum class Error : std::uint8_t");
        return static_cast<ErrorCode>(error);
    }

    std::optional<T> value_;
    ErrorCode code_ = ErrorCode::SUCCESS;
};

/// What both sides of a service agree on. Request and reply are structs with a list of fields
/// (`mqtt/fields.hpp`), or `Nothing`.
template <class Request, class Reply>
struct Service {
    static_assert(IS_PAYLOAD<Request> && IS_PAYLOAD<Reply>,
                  "Request and reply of a service need a list of fields: write "
                  "ZYM_MQTT_FIELDS(Type, field...) in the type's namespace, or use mqtt::Nothing");

    Topic base;         ///< all topics of the service begin with it
    std::string name;   ///< see `RequestReply` for its limits
    Topic subPath = {}; ///< between the server's identifier and the name
};

/// As the parameter of `RequestReplyClient`: 0 or less is 0, `std::chrono::seconds::max()` is
/// without limit.
ZYM_MQTT_EXPORT conv::SecondsDuration timeoutOf(std::chrono::seconds timeout);

/// False for every type: for assertions about the types of arguments.
template <class...>
inline constexpr bool IS_ACCEPTED = false;

/// Answers the requests of a service by a function, from all clients, one after the other.
///
/// The function runs on the client's worker thread with no lock held, and all other work of that
/// thread waits meanwhile. It may call every operation that does not wait; a `callWait` on the same
/// client ends with TIMEOUT at once. When it throws, no reply is sent and the log has an ERROR. A
/// request whose fields cannot be read is dropped without a reply.
///
/// The server may be destroyed at any time, also by its own function: that request then gets no
/// reply. On another thread the destructor waits for a function under way; do not hold a lock then
/// that the function takes. The client must outlive it.
template <class Request, class Reply>
class Server final : private RequestReplyServer::Listener {
public:
    /// @param request valid until the function returns
    /// @return the reply, a value of the service's own enumeration of errors, or any other code
    using Function = std::function<Result<Reply>(Request const& request)>;
    /// The same for a function that has to know who asks.
    using FunctionWithClient =
        std::function<Result<Reply>(Request const& request, ClientId const& client)>;

    /// Starts to serve.
    /// @throws std::invalid_argument the name of the service, as `RequestReply`
    Server(MqttClient& client, Service<Request, Reply> const& service, ServerId const& id,
           Function function)
        : Server(client, service, id,
                 FunctionWithClient([function = std::move(function)](Request const& request,
                                                                     ClientId const& /*client*/) {
                     return function(request);
                 })) {}
    Server(MqttClient& client, Service<Request, Reply> const& service, ServerId const& id,
           FunctionWithClient function)
        : function_(std::make_shared<FunctionWithClient const>(std::move(function))),
          server_(client, service.base, service.subPath, service.name),
          result_(server_.subscribe(this, id.uuid, std::make_shared<Payload<Request>>())) {}
    template <class Id>
    Server(MqttClient& client, Service<Request, Reply> const& service, Id const& /*id*/,
           Function function)
        : Server(client, service, ServerId(), std::move(function)) {
        static_assert(IS_ACCEPTED<Id>, "The identifier of a server is a ServerId: "
                                       "Server(client, service, ServerId(...), function)");
    }
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;
    ~Server() = default; // of `server_` first, which waits

    /// Whether requests arrive: as `MqttClient::subscribe`.
    MqttClient::Error result() const { return result_; }

private:
    std::shared_ptr<RequestReplyData> onRequest(std::string const& /*name*/,
                                                zym::common::Uuid const& clientUuid,
                                                zym::common::Uuid const& /*serverUuid*/,
                                                RequestReplyData const& data,
                                                RequestReply::ErrorCode& error) override {
        // Kept, because the function may destroy this object. The data is what `subscribe` got.
        auto const function = function_;
        auto const& request = static_cast<Payload<Request> const&>(data).value;
        Result<Reply> result = (*function)(request, ClientId(clientUuid));
        error = result.code();
        return result ? std::make_shared<Payload<Reply>>(std::move(result).value()) : nullptr;
    }

    std::shared_ptr<FunctionWithClient const> const function_;
    RequestReplyServer server_;
    MqttClient::Error result_ = MqttClient::Error::NOT_FOUND;
};

template <class Request, class Reply, class Id, class Function>
Server(MqttClient&, Service<Request, Reply> const&, Id const&, Function) -> Server<Request, Reply>;

/// Calls a service; one call at a time.
///
/// May be destroyed at any time, also by the function of a call; a call under way then ends with
/// CANCELLED. On another thread the destructor waits for a call in `callWait` and for a function
/// under way; do not hold a lock then that the function takes. Every operation may be called from
/// any thread, but not from a communication state listener. The client must outlive the caller.
template <class Request, class Reply>
class Caller final {
public:
    using ErrorCode = RequestReply::ErrorCode;
    /// @param result the reply; a code of the service; TIMEOUT, CANCELLED, NO_LISTENER, or
    ///        UNREADABLE_REPLY
    using Function = std::function<void(Result<Reply> const& result)>;

    /// @param caller no other caller of this service may have the same at the same time
    /// @throws std::invalid_argument the name of the service, as `RequestReply`
    Caller(MqttClient& client, Service<Request, Reply> const& service, ClientId const& caller,
           ServerId const& server)
        : callerId_(caller),
          serverId_(server),
          client_(client, service.base, service.subPath, service.name) {}
    template <class First, class Second>
    Caller(MqttClient& client, Service<Request, Reply> const& service, First const& /*caller*/,
           Second const& /*server*/)
        : Caller(client, service, ClientId({}), ServerId()) {
        static_assert(IS_ACCEPTED<First, Second>,
                      "The identifiers of a call are a ClientId and then a ServerId: "
                      "Caller(client, service, ClientId(...), ServerId(...))");
    }

    /// Calls the service and waits for the end of the call. Passes on what writing the request
    /// throws; nothing has been sent then.
    /// @param timeout 0 or less does not wait, `std::chrono::seconds::max()` waits without limit
    /// @return what `Function` gets, or BUSY: another call of this object is under way. On the
    ///         client's worker thread TIMEOUT at once, although the request is sent.
    Result<Reply> callWait(Request request, std::chrono::seconds timeout) {
        auto const made = std::make_shared<Call>(std::move(request));
        auto const code = client_.requestWait(callerId_.uuid, serverId_.uuid, requestOf(made),
                                              replyOf(made), timeoutOf(timeout));
        // From here on this object may be destroyed.
        return made->result(code);
    }

    /// Calls the service and passes the result to a function, once, on the thread that ends the
    /// call: see `RequestReplyClient`. What the function throws is dropped; it may make the next
    /// call. Passes on what writing the request throws; nothing has been sent then.
    /// @param timeout as `RequestReplyClient::request`; `std::chrono::seconds::max()`: none
    /// @return PENDING: the function will be called; BUSY: another call of this object is under
    ///         way, and the function will not be called
    [[nodiscard]] ErrorCode call(Request request, std::chrono::seconds timeout, Function function) {
        auto const begun = std::make_shared<Call>(std::move(request));
        begun->function = std::move(function);
        begun->self = begun; // the reply may arrive before `request` returns
        auto code = ErrorCode::NONE;
        try {
            code = client_.request(begun.get(), callerId_.uuid, serverId_.uuid, requestOf(begun),
                                   replyOf(begun), nullptr, timeoutOf(timeout));
        } catch (...) {
            begun->abandon();
            throw;
        }
        if (code != ErrorCode::PENDING) {
            begun->abandon();
        }
        return code;
    }

    /// Ends the call under way with CANCELLED. Its function is called on this thread.
    void cancel() { client_.cancel(); }

private:
    using Answer = Result<Reply>; // `Reply` is something else in the listener's class

    /// What a reply is read into.
    struct ReplyPayload final : RequestReplyData {
        void deserialize(zym::common::lwjson::Deserializer& in) override {
            payload.deserialize(in);
            isRead = true;
        }
        void serialize(zym::common::lwjson::Serializer& /*out*/) const override {}

        Payload<Reply> payload;
        bool isRead = false;
    };

    /// One call; in one piece of memory.
    struct Call final : RequestReplyClient::Listener {
        explicit Call(Request initial) : request(std::move(initial)) {}

        void onReply(unsigned int /*requestId*/, std::string const& /*name*/,
                     zym::common::Uuid const& /*clientUuid*/,
                     zym::common::Uuid const& /*serverUuid*/, RequestReplyData const& /*data*/,
                     ErrorCode code) override {
            auto const kept = std::move(self);
            auto const callee = std::move(function);
            callee(result(code));
        }

        /// Once, after the end of the call.
        Answer result(ErrorCode code) {
            if (code != ErrorCode::SUCCESS) {
                return code;
            }
            if (!reply.isRead) {
                return UNREADABLE_REPLY;
            }
            return std::move(reply.payload.value);
        }

        /// The function will not be called. The client may keep the payloads until the next call.
        void abandon() {
            function = nullptr;
            self = nullptr;
        }

        Payload<Request> request;
        ReplyPayload reply;
        Function function;
        std::shared_ptr<Call> self; ///< until the function is called
    };

    static std::shared_ptr<RequestReplyData> requestOf(std::shared_ptr<Call> const& call) {
        return {call, &call->request};
    }
    static std::shared_ptr<RequestReplyData> replyOf(std::shared_ptr<Call> const& call) {
        return {call, &call->reply};
    }

    ClientId const callerId_;
    ServerId const serverId_;
    RequestReplyClient client_;
};

} // namespace mqtt
