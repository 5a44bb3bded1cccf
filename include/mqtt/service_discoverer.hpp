#pragma once

#include "mqtt/export.hpp"
#include "mqtt/link.hpp"
#include "mqtt/payloads.hpp"

#include <conv/identification.hpp>
#include <conv/seconds_duration.hpp>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace mqtt {

class Visitors;

/// Finds out which entities a service has, and what each of them is: reads the links published on
/// one topic, and then the identification of every linked entity.
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
/// communication state listener. Runs are made one at a
/// time: a call waits for the run under way to end before its own time-out begins.
///
/// ### Lifetime
/// The discoverer may be destroyed at any time; a run under way on another thread then ends with
/// false.
class ZYM_MQTT_EXPORT ServiceDiscovererMqtt final
    : public MqttData<std::vector<Link>>::Subscriber,
      public MqttData<conv::Identification>::Subscriber {
public:
    /// Subscribes to nothing yet.
    /// @param topic where the links are published
    ServiceDiscovererMqtt(MqttClient& client, Topic const& topic);
    ~ServiceDiscovererMqtt();
    ServiceDiscovererMqtt(ServiceDiscovererMqtt const&) = delete;
    ServiceDiscovererMqtt& operator=(ServiceDiscovererMqtt const&) = delete;

    /// Discovers, waiting for as long as it takes.
    /// @param timeout seconds; all ones waits without limit
    /// @param withIdentification whether to ask every entity for its identification
    /// @return whether it is complete: false when the time was not enough; what has been found
    ///         by then can be read
    bool discoverSync(conv::SecondsDuration timeout, bool withIdentification);
    /// Waits for a list of links other than the last one accepted, in number, order or text, and
    /// then discovers as `discoverSync`. Before the first run the last one is an empty list.
    bool waitChange(conv::SecondsDuration timeout, bool withIdentification);
    /// As `waitChange` or `discoverSync`.
    bool launchSync(conv::SecondsDuration timeout, bool withIdentification, bool waitForChange);

    /// The last accepted list of links.
    std::vector<Link> links() const;
    /// One entry per link, in the same order. Of an entity that was not asked, or has not answered,
    /// only the uuid is filled in, with the text of `Uuid::UNKNOWN`.
    std::vector<conv::Identification> entities() const;

    /// Stops listening to whatever is listened to. A run under way then ends by its time-out.
    void cleanSubscriptions();

    /// Called by the endpoints; not for applications.
    void onMqttData(std::vector<Link> const& links, bool empty, int id) override;
    /// Called by the endpoints; not for applications.
    void onMqttData(conv::Identification const& identification, bool empty, int id) override;

private:
    using Lock = std::unique_lock<std::mutex>;
    using Endpoint = MqttData<conv::Identification>;

    ZYM_MQTT_LOCAL bool waitUntilDone(conv::SecondsDuration const& timeout, Lock& lock);
    ZYM_MQTT_LOCAL bool accepts(std::vector<Link> const& links, Lock const& lock) const;
    ZYM_MQTT_LOCAL void takeOver(std::vector<Link> const& links, Lock const& lock);
    ZYM_MQTT_LOCAL void expect(std::size_t entities, Lock const& lock);
    ZYM_MQTT_LOCAL void askEntities(Lock const& lock);
    ZYM_MQTT_LOCAL Endpoint* awaited(int id, Lock const& lock) const;
    ZYM_MQTT_LOCAL void cleanSubscriptions(Lock const& lock);
    ZYM_MQTT_LOCAL bool isDone(Lock const& lock);

    std::vector<conv::Identification> identifications_;
    std::vector<Link> links_;
    MqttClient& client_;
    MqttDataCollection<Link> linksData_;
    bool withIdentification_ = true;
    bool waitForChange_ = false;
    std::int32_t pending_ = 0; ///< identifications still awaited
    std::vector<std::shared_ptr<Endpoint>> identificationEndpoints_;
    mutable std::mutex mutex_; ///< all of this, but the endpoints; taken before theirs
    std::condition_variable changed_;
    bool done_ = false;
    bool awaitsLinks_ = false;                ///< the run under way has not accepted a list yet
    std::vector<bool> awaited_;               ///< by link: whose answer still counts
    bool ending_ = false;                     ///< being destroyed
    bool failed_ = false;                     ///< the run cannot go on for lack of memory
    std::mutex runMutex_;                     ///< one run at a time; taken before `mutex_`
    std::shared_ptr<Visitors> const callers_; ///< inside a run
};

} // namespace mqtt
