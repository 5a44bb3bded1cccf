#pragma once

#include "mqtt/export.hpp"
#include "mqtt/link.hpp"
#include "mqtt/mutex.hpp"
#include "mqtt/payloads.hpp"

#include <conv/identification.hpp>
#include <conv/seconds_duration.hpp>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace mqtt {

class ActiveCalls;

/// Finds the entities of a service: reads the links published on one topic, and then the
/// identification of every linked entity.
/// ```
/// ServiceDiscovererMqtt discoverer(client, "plant/entities");
/// if (discoverer.discoverSync(5, true))
///     for (auto const& entity : discoverer.entities())
///         std::cout << entity.name << '\n';
/// ```
///
/// ### Threads
/// Every operation may be called from any thread. On the MQTT client's worker thread, which has to
/// read the answers, `discoverSync`, `waitChange` and `launchSync` return false at once. No
/// operation, also not `links` or `entities`, and not the destructor, may be called from a
/// communication state listener. There is one run at a time: a call waits for the end of the run
/// under way before its own time-out begins.
///
/// ### Lifetime
/// The discoverer may be destroyed at any time; a run under way on another thread then ends with
/// false.
class ZYM_MQTT_EXPORT ServiceDiscovererMqtt final
    : public MqttData<std::vector<Link>>::Subscriber,
      public MqttData<conv::Identification>::Subscriber {
public:
    /// Subscribes to nothing.
    /// @param topic where the links are published
    ServiceDiscovererMqtt(MqttClient& client, Topic const& topic);
    ~ServiceDiscovererMqtt();
    ServiceDiscovererMqtt(ServiceDiscovererMqtt const&) = delete;
    ServiceDiscovererMqtt& operator=(ServiceDiscovererMqtt const&) = delete;

    /// Discovers, and waits until that is complete.
    /// @param timeout seconds; `UINT32_MAX` waits without limit
    /// @param withIdentification whether to read the identification of every entity
    /// @return false after the time-out; what has been found by then can be read
    bool discoverSync(conv::SecondsDuration timeout, bool withIdentification);
    /// Waits for a list of links other than the last one accepted, in number, order or text, and
    /// then discovers as `discoverSync`. Before the first run the last one is an empty list.
    bool waitChange(conv::SecondsDuration timeout, bool withIdentification);
    /// As `waitChange` or `discoverSync`.
    bool launchSync(conv::SecondsDuration timeout, bool withIdentification, bool waitForChange);

    /// The last accepted list of links.
    std::vector<Link> links() const;
    /// One entry per link, in the same order. An entity whose identification was not read has the
    /// text of `Uuid::UNKNOWN` as its uuid, and its other members are empty.
    std::vector<conv::Identification> entities() const;

    /// Ends all subscriptions. A run under way then ends by its time-out.
    void cleanSubscriptions();

    /// Called by the endpoints; not for applications.
    void onMqttData(std::vector<Link> const& links, bool empty, int id) override;
    /// Called by the endpoints; not for applications.
    void onMqttData(conv::Identification const& identification, bool empty, int id) override;

private:
    using Endpoint = MqttData<conv::Identification>;

    ZYM_MQTT_LOCAL void handleLinks(std::vector<Link> const& links) ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void subscribeToIdentifications() ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL Endpoint* awaitedEndpoint(int id) const ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL void stopListening() ZYM_MQTT_REQUIRES(mutex_);
    ZYM_MQTT_LOCAL bool isDone() ZYM_MQTT_REQUIRES(mutex_);

    std::vector<conv::Identification> identifications_ ZYM_MQTT_GUARDED_BY(mutex_);
    std::vector<Link> links_ ZYM_MQTT_GUARDED_BY(mutex_);
    MqttClient& client_;
    MqttDataCollection<Link> linksData_;
    bool withIdentification_ ZYM_MQTT_GUARDED_BY(mutex_) = true;
    bool waitForChange_ ZYM_MQTT_GUARDED_BY(mutex_) = false;
    std::int32_t pending_ ZYM_MQTT_GUARDED_BY(mutex_) = 0; ///< identifications still awaited
    std::vector<std::shared_ptr<Endpoint>> identificationEndpoints_ ZYM_MQTT_GUARDED_BY(mutex_);
    mutable Mutex mutex_; ///< taken before the endpoints' mutexes
    std::condition_variable changed_;
    bool done_ ZYM_MQTT_GUARDED_BY(mutex_) = false;
    /// The run under way has not accepted a list yet.
    bool awaitsLinks_ ZYM_MQTT_GUARDED_BY(mutex_) = false;
    /// By link: whether its identification still counts.
    std::vector<bool> awaited_ ZYM_MQTT_GUARDED_BY(mutex_);
    bool destroyed_ ZYM_MQTT_GUARDED_BY(mutex_) = false;
    /// The run under way cannot continue for lack of memory.
    bool failed_ ZYM_MQTT_GUARDED_BY(mutex_) = false;
    std::mutex runMutex_;                      ///< one run at a time; taken before `mutex_`
    std::shared_ptr<ActiveCalls> const calls_; ///< runs
};

} // namespace mqtt
