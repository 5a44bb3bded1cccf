// Mistakes that would be silent.

#include <mqtt/service.hpp>

namespace app {

using namespace std::chrono_literals;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

struct Amount {
    unsigned litres = 0;
};
ZYM_MQTT_VALUE(Amount, "amount", 2, true, litres)

struct Bare {};

enum class Error : std::uint8_t { NOT_ENOUGH = 16 };
enum class WideError { NOT_ENOUGH = 16 };

mqtt::Result<Amount> answer(Amount const& wanted) {
    if (wanted.litres > 100) {
        return Error::NOT_ENOUGH;
    }
#ifdef ERROR_THAT_MAY_NOT_FIT // error: The errors of a service have 8 bits
    return WideError::NOT_ENOUGH;
#endif
    return wanted;
}

void writing(Serializer& out) {
    out.addValue(1);
    out.addValue(1U);
    out.addValue(1.5F);
#ifdef BOOL_WRITTEN_AS_A_NUMBER // error: addValue
    out.addValue(true);
#endif
#ifdef LONG_LONG_WRITTEN_AS_A_DOUBLE // error: addValue
    out.addValue(1LL << 60);
#endif
}

void reading(Deserializer& in) {
    unsigned number = 0;
    Deserializer::extractValue(in.getMember("a"), number, "");
#ifdef INT_READ // error: extractValue
    int integer = 0;
    Deserializer::extractValue(in.getMember("a"), integer, "");
#endif
#ifdef BOOL_READ // error: extractValue
    bool flag = false;
    Deserializer::extractValue(in.getMember("a"), flag, "");
#endif
}

#ifdef REQUEST_WITHOUT_FIELDS // error: Request and reply of a service need a list of fields
mqtt::Service<Bare, Amount> const BARE;
#endif

void calls(mqtt::MqttClient& client, mqtt::Service<Amount, Amount> const& draw,
           zym::common::Uuid const& id) {
    mqtt::Server const server(client, draw, mqtt::ServerId(id), answer);
    mqtt::Caller caller(client, draw, mqtt::ClientId(id), mqtt::ServerId(id));
    caller.callWait({1}, 5s).code();
#ifdef IDENTIFIERS_EXCHANGED // error: The identifiers of a call are a ClientId and then a ServerId
    mqtt::Caller exchanged(client, draw, mqtt::ServerId(id), mqtt::ClientId(id));
#endif
#ifdef IDENTIFIERS_OF_NO_SIDE // error: The identifiers of a call are a ClientId and then a ServerId
    mqtt::Caller untyped(client, draw, id, id);
#endif
#ifdef SERVER_WITH_A_CLIENTS_IDENTIFIER // error: The identifier of a server is a ServerId
    mqtt::Server wrong(client, draw, mqtt::ClientId(id), answer);
#endif
#ifdef CALL_WITH_HALF_A_SECOND // error: 'double' to 'std::chrono::seconds'
    caller.callWait({1}, 0.5).code();
#endif
#ifdef CALL_WITH_MINUS_ONE // error: 'int' to 'std::chrono::seconds'
    caller.callWait({1}, -1).code();
#endif
}

void waits(mqtt::MqttClient& client, mqtt::MqttData<Amount>& endpoint, Amount& amount) {
    client.disconnect(1);
    endpoint.waitForNext(amount, 1s);
#ifdef HALF_A_SECOND // error: 'conv::SecondsDuration
    client.disconnect(0.5);
#endif
#ifdef WAIT_WITH_MINUS_ONE // error: 'int' to 'std::chrono::seconds'
    endpoint.waitForNext(amount, -1);
#endif
}

} // namespace app
