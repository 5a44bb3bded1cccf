#include "common/endpoint_report.hpp"

#include "common/log.hpp"
#include "mqtt/statistics.hpp"

#include <new>

namespace mqtt {

void EndpointReport::documentDropped(std::string const& topic,
                                     std::exception const& cause) noexcept {
    bool const hasNoMemory = dynamic_cast<std::bad_alloc const*>(&cause) != nullptr;
    (hasNoMemory ? withoutMemory_ : unreadable_).add(1);
    log(LogLevel::ERROR, clientId_, ": document dropped: ", topic, ": ", cause.what());
}

void EndpointReport::replyDropped(std::string const& requestName,
                                  std::uint32_t requestId) const noexcept {
    log(LogLevel::INFO, clientId_, ": reply dropped: request ", requestId, " of ", requestName,
        " is not under way");
}

void EndpointReport::addTo(Statistics& statistics) const {
    statistics.droppedDocuments.unreadable = unreadable_.get();
    statistics.droppedDocuments.noMemory = withoutMemory_.get();
    statistics.requests.made = made_.load(std::memory_order_relaxed);
    statistics.requests.replied = replied_.load(std::memory_order_relaxed);
    statistics.requests.timedOut = timedOut_.load(std::memory_order_relaxed);
}

} // namespace mqtt
