#include "dispatch_check.hpp"

#include "broker_librarys_view.hpp"

#include <mqtt/client.hpp>

#include <array>
#include <cstddef>
#include <cstdio>
#include <map>
#include <random>
#include <stdexcept>

namespace bench {
namespace {

constexpr int NOBODY = -1;

class Chooser final : private mqtt::MqttClient::Subscriber {
public:
    explicit Chooser(std::vector<std::string> const& subscriptions) {
        client_.pause();
        for (auto const& text : subscriptions) {
            int const tag = static_cast<int>(registry_.size());
            if (!registry_.emplace(text, tag).second) {
                continue;
            }
            if (client_.subscribe(text, this, tag) != mqtt::MqttClient::Error::SUCCESS) {
                throw std::runtime_error("cannot subscribe to " + text);
            }
        }
    }
    ~Chooser() { client_.release(this); }
    Chooser(Chooser const&) = delete;
    Chooser& operator=(Chooser const&) = delete;

    int choose(std::string topic) {
        chosen_ = NOBODY;
        mosquitto_message message{};
        message.topic = topic.data();
        brokerLibrarysView(client_).on_message(&message);
        return chosen_;
    }

    int walk(mqtt::Topic const& topic) const {
        auto const exact = registry_.find(topic);
        if (exact != registry_.end()) {
            return exact->second;
        }
        for (auto const& [pattern, tag] : registry_) {
            if (pattern.matches(topic)) {
                return tag;
            }
        }
        return NOBODY;
    }

private:
    void onMqttMessage(int tag, mqtt::Topic const& /*topic*/,
                       std::string const& /*payload*/) override {
        // Two calls for one message are a wrong choice, too.
        chosen_ = chosen_ == NOBODY ? tag : NOBODY - 1;
    }

    std::map<mqtt::Topic, int> registry_;
    int chosen_ = NOBODY;
    mqtt::MqttClient client_{zym::common::Uuid(1), false, "", "", 0, false};
};

class Dice {
public:
    std::size_t below(std::size_t limit) { return engine_() % limit; }

    std::string level() {
        // Few names, so that messages and patterns meet often; and what byte order could trip over.
        constexpr std::array<char const*, 9> NAMES{"a",  "b", "",  "aa",      "$a",
                                                   "\"", "!", "~", "\xc3\xbf"};
        return NAMES[below(NAMES.size())];
    }
    std::string topic() { return path(&Dice::level); }
    std::string pattern() {
        std::string const text = path(&Dice::patternLevel);
        return below(3) == 0 ? text + "/#" : text;
    }

private:
    std::string path(std::string (Dice::*anyLevel)()) {
        std::string text = (this->*anyLevel)();
        for (auto more = below(5); more > 0; --more) {
            text += '/' + (this->*anyLevel)();
        }
        // Separators alone are no topic.
        return text.find_first_not_of('/') == std::string::npos ? "a" : text;
    }

    std::string patternLevel() { return below(3) == 0 ? "+" : level(); }

    std::mt19937 engine_{1};
};

} // namespace

bool choosesAsAWalk(std::vector<std::string> const& subscriptions,
                    std::vector<std::string> const& messages) {
    Chooser chooser(subscriptions);
    for (auto const& message : messages) {
        int const expected = chooser.walk(mqtt::Topic(message));
        int const chosen = chooser.choose(message);
        if (chosen != expected) {
            std::printf("FAILED: \"%s\" of %zu subscriptions: %d and not %d\n", message.c_str(),
                        subscriptions.size(), chosen, expected);
            return false;
        }
    }
    return true;
}

bool choosesAsAWalkAtRandom(unsigned registries) {
    Dice dice;
    bool agree = true;
    for (unsigned i = 0; i < registries; ++i) {
        constexpr std::size_t MESSAGES = 1000;
        std::vector<std::string> subscriptions(1 + dice.below(100));
        std::vector<std::string> messages(MESSAGES);
        for (auto& text : subscriptions) {
            text = dice.below(5) == 0 ? dice.topic() : dice.pattern();
        }
        for (auto& text : messages) {
            text = dice.topic();
        }
        agree = choosesAsAWalk(subscriptions, messages) && agree;
    }
    return agree;
}

} // namespace bench
