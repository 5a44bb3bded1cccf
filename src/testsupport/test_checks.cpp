#include "mqtt/test_checks.hpp"

#include <zym/common/test.hpp>

#include <algorithm>
#include <exception>
#include <iostream>
#include <typeinfo>

namespace mqtt {

namespace {

using zym::common::Uuid;

constexpr char PREFIX[] = "[TEST-UTILS] ";
constexpr char HOST[] = "localhost";
constexpr int PORT = 1883;
constexpr unsigned PAUSE_MS = 100;
constexpr int CLEAN_POLLS = 5;
constexpr int LINK_POLLS = 31;

/// Prints and counts one check. After a null subject nothing more is printed.
class Check {
public:
    Check(char const* subject, TestCounter& counter) : subject_(subject), counter_(counter) {}

    void start() {
        ++counter_.started;
        std::cout << std::endl;
        print("...");
    }

    void pass() {
        print(" - SUCCESS");
        ++counter_.passed;
    }

    /// To be called in a catch block.
    [[noreturn]] void fail() {
        try {
            throw;
        } catch (test_error const&) {
            print(" - FAILURE");
        } catch (std::exception const& error) {
            print(error);
            print(" - FAILURE : UNEXPECTED EXCEPTION");
        } catch (...) {
            print(" - FAILURE : UNEXPECTED EXCEPTION !!!");
        }
        ++counter_.failed;
        throw test_error();
    }

private:
    void print(char const* verdict) const {
        std::cout << PREFIX << subject_ << verdict << std::endl;
    }

    static void print(std::exception const& error) {
        std::cout << PREFIX << "\tException thrown:   " << typeid(error).name() << std::endl;
        std::cout << PREFIX << "\twith message:       \"" << error.what() << '"' << std::endl;
    }

    char const* subject_;
    TestCounter& counter_;
};

std::vector<Link> linksOf(MqttDataCollection<Link>& collection) {
    MqttDataBase::Lock const lock(collection.mutex());
    return collection.value;
}

} // namespace

test_error::test_error() : std::runtime_error("") {}
test_error::~test_error() = default;

CleanTopicChecker::CleanTopicChecker() : CleanTopicChecker(HOST, PORT, ConnectionOptions()) {}

CleanTopicChecker::CleanTopicChecker(std::string const& host, int port,
                                     ConnectionOptions const& options)
    : client(Uuid(0), false, "", host, port, true, options) {}

CleanTopicChecker::~CleanTopicChecker() {
    client.release(this);
}

void CleanTopicChecker::onMqttMessage(int /*tag*/, Topic const& topic,
                                      std::string const& /*payload*/) {
    std::cout << topic;
    clean = false;
}

void testTopicClean(Topic const& topic, TestCounter& counter) {
    testTopicClean(topic, counter, HOST, PORT, ConnectionOptions());
}

void testTopicClean(Topic const& topic, TestCounter& counter, std::string const& host, int port,
                    ConnectionOptions const& options) {
    auto const subject = "Check topic \"" + topic.text() + "\" has been cleaned";
    Check check(subject.c_str(), counter);
    try {
        CleanTopicChecker checker(host, port, options);
        static_cast<void>(checker.client.subscribe(topic, &checker, 0));
        check.start();
        for (int poll = 0; poll < CLEAN_POLLS; ++poll) {
            if (!checker.clean) {
                throw test_error();
            }
            zym::common::test::sleep(PAUSE_MS);
        }
        check.pass();
    } catch (...) {
        check.fail();
    }
}

void testLinkInCollection(std::string const& link, Topic const& topic, char const* message,
                          TestCounter& counter) {
    testLinkInCollection(link, topic, message, counter, HOST, PORT, ConnectionOptions());
}

void testLinkInCollection(std::string const& link, Topic const& topic, char const* message,
                          TestCounter& counter, std::string const& host, int port,
                          ConnectionOptions const& options) {
    Check check(message, counter);
    try {
        MqttClient client(Uuid(0), false, "", host, port, true, options);
        MqttDataCollection<Link> collection(client, topic);
        collection.subscribe(nullptr, 0);
        check.start();
        for (int poll = 1; !isLinkPublishedInCollection(link, collection); ++poll) {
            if (poll == LINK_POLLS) {
                throw test_error();
            }
            zym::common::test::sleep(PAUSE_MS);
        }
        check.pass();
    } catch (...) {
        check.fail();
    }
}

bool isLinkPublishedInCollection(std::string const& link, MqttDataCollection<Link>& collection) {
    auto const links = linksOf(collection);
    return std::any_of(links.begin(), links.end(),
                       [&](Link const& published) { return published.id == link; });
}

bool checkCollectionPublished(std::vector<Uuid> const& uuids,
                              MqttDataCollection<Link>& collection) {
    auto const links = linksOf(collection);
    auto const isPublished = [&](Uuid const& uuid) {
        auto const text = uuid.base64URL();
        return std::any_of(links.begin(), links.end(), [&](Link const& published) {
            return published.id.find(text) != std::string::npos;
        });
    };
    return links.size() == uuids.size() && std::all_of(uuids.begin(), uuids.end(), isPublished);
}

} // namespace mqtt
