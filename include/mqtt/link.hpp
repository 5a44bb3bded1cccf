#pragma once

#include "mqtt/data.hpp"
#include "mqtt/export.hpp"

#include <iosfwd>
#include <string>
#include <vector>

namespace mqtt {

/// Refers to another entity by its topic: `{"@id": "a/b"}`.
struct ZYM_MQTT_EXPORT Link {
    std::string id; ///< the topic path of the entity, as text
};

// A single link on the given topic, published at QoS 2 and retained. A document without "@id"
// is dropped and leaves the link unchanged.
template <>
ZYM_MQTT_EXPORT MqttData<Link>::MqttData(MqttClient& client, Topic const& topic);
template <>
ZYM_MQTT_EXPORT void MqttData<Link>::serialize(Topic const& topic, std::string& payload,
                                               Link const& value);
template <>
ZYM_MQTT_EXPORT void MqttData<Link>::deserialize(Topic const& topic, std::string const& payload,
                                                 bool empty, Link& value);

// Links on the given topic, published at QoS 2 and retained: see `MqttDataCollection<Link>`.
template <>
ZYM_MQTT_EXPORT MqttData<std::vector<Link>>::MqttData(MqttClient& client, Topic const& topic);
template <>
ZYM_MQTT_EXPORT void MqttData<std::vector<Link>>::serialize(Topic const& topic,
                                                            std::string& payload,
                                                            std::vector<Link> const& value);
template <>
ZYM_MQTT_EXPORT void MqttData<std::vector<Link>>::deserialize(Topic const& topic,
                                                              std::string const& payload,
                                                              bool empty, std::vector<Link>& value);

extern template class MqttData<Link>;
extern template class MqttData<std::vector<Link>>;

template <class T>
class MqttDataCollection;

/// A published collection of links: their number, and the links in order.
/// ```
/// {
///   "members@count": 1,
///   "members":
///   [
///     {"@id": "a/b"}
///   ]
/// }
/// ```
/// All links are read, whatever the number says. A document without one of the two members is
/// dropped. So is one with an element that is no link: the value then holds the links before it and
/// an empty one.
template <>
class ZYM_MQTT_EXPORT MqttDataCollection<Link> : public MqttData<std::vector<Link>> {
public:
    MqttDataCollection(MqttClient& client, Topic const& topic);
    MqttDataCollection(MqttDataCollection const& other);
    ~MqttDataCollection() override;

    static void serialize(Topic const& topic, std::string& payload, std::vector<Link> const& value);
    static void deserialize(Topic const& topic, std::string const& payload, bool empty,
                            std::vector<Link>& value);

protected:
    using MqttData<std::vector<Link>>::deserialize;
    using MqttData<std::vector<Link>>::serialize;
};

/// Writes each link's id on a line of its own.
ZYM_MQTT_EXPORT std::ostream& operator<<(std::ostream& out, std::vector<Link> const& links);

} // namespace mqtt
