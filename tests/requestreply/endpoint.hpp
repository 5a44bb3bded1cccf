#pragma once

#include <mqtt/data.hpp>

#include <string>

/// An endpoint whose topics are public.
template <class T>
class Endpoint : public mqtt::MqttData<T> {
public:
    using mqtt::MqttData<T>::MqttData;

    std::string publishTopic() {
        mqtt::Topic topic = "previous text";
        this->getPublishTopic(topic);
        return topic.text();
    }
    std::string subscribeTopic() {
        mqtt::Topic topic = "previous text";
        this->getSubscribeTopic(topic);
        return topic.text();
    }
};
