#pragma once

#include <mqtt/data.hpp>

#include <string>

/// An endpoint whose topics can be asked for.
template <class T>
class Endpoint : public mqtt::MqttData<T> {
public:
    using mqtt::MqttData<T>::MqttData;

    std::string publishTopic() {
        mqtt::Topic topic = "what stood there before";
        this->getPublishTopic(topic);
        return topic.text();
    }
    std::string subscribeTopic() {
        mqtt::Topic topic = "what stood there before";
        this->getSubscribeTopic(topic);
        return topic.text();
    }
};
