// Mistakes with lists of fields.

#include <mqtt/fields.hpp>

namespace app {

struct Reading {
    double value = 0;
    std::string unit;
    long double other = 0;
};

#ifdef WRONG_NAME // error: 'valeu'
ZYM_MQTT_FIELDS(Reading, valeu, unit)
#endif

#ifdef TYPE_WITHOUT_FORM // error: The type of this field has no form in a document: use bool,
ZYM_MQTT_FIELDS(Reading, value, other)
std::shared_ptr<mqtt::RequestReplyData> payload() {
    return std::make_shared<mqtt::Payload<Reading>>();
}
#endif

#ifdef QOS_OUT_OF_RANGE // error: ZYM_MQTT_VALUE(Type, level, qos, retained, field...): qos is 0, 1
ZYM_MQTT_VALUE(Reading, "reading", 3, true, value, unit)
#endif

#ifdef QOS_AND_RETAINED_EXCHANGED // error: retained is true or false
ZYM_MQTT_VALUE(Reading, "reading", true, 2, value, unit)
#endif

#ifdef TOO_MANY_FIELDS // error: ZYM_MQTT_FIELDS and ZYM_MQTT_VALUE take at most 32 fields
ZYM_MQTT_FIELDS(Reading, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a,
                a, a, a, a, a, a, a, a)
#endif

#ifdef NO_LEVEL // error: This type is not the value of an endpoint yet: write ZYM_MQTT_VALUE(Type,
ZYM_MQTT_FIELDS(Reading, value, unit)
mqtt::MqttData<Reading> endpoint(mqtt::MqttClient& client) {
    return {client, "a"};
}
#endif

#ifdef NO_LIST // error: This type has no list of fields: write ZYM_MQTT_VALUE(Type,
mqtt::MqttData<Reading> endpoint(mqtt::MqttClient& client) {
    return {client, "a"};
}
#endif

#ifdef NO_LIST_OF_A_PAYLOAD // error: This type has no list of fields: write ZYM_MQTT_VALUE(Type,
std::shared_ptr<mqtt::RequestReplyData> payload() {
    return std::make_shared<mqtt::Payload<Reading>>();
}
#endif

#ifdef NO_LIST_OF_A_MEMBER // error: The type of this field has no form in a document: use bool,
struct Station {
    Reading reading;
};
ZYM_MQTT_VALUE(Station, "", 0, false, reading)
mqtt::MqttData<Station> endpoint(mqtt::MqttClient& client) {
    return {client, "a"};
}
#endif

} // namespace app
