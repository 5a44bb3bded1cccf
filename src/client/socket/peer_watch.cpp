#include "client/socket/peer_watch.hpp"

// Not <netinet/tcp.h>, whose tcp_info ends before the counters.
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace mqtt {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds ANY_TIME{1000};
/// What a peer that waits loses, until it is known for that.
constexpr milliseconds A_MOMENT{2};
/// The same for one that has shown neither: a timer that is due before the kernel's next tick, set
/// with each step, costs an exchange some 5 %.
constexpr milliseconds A_WHILE{10};
constexpr milliseconds AT_ONCE{1};
/// By then the kernel may have acknowledged of its own accord.
constexpr milliseconds LONG{20};

constexpr int ENOUGH_SILENCES = 3;
constexpr int ENOUGH_GOINGS_ON = 2;
constexpr int MOST_LOOKS = 200;
/// After each silence: what a stream shows is mostly nothing, and looking is not for free.
constexpr int SECOND_LOOKS = 20;
/// On a busy machine a peer may seem to wait that was only kept from running.
constexpr int SECOND_THOUGHTS = 20000;

/// No segment that is smaller than this is a full one: it is the least that IPv4 allows for.
constexpr std::uint32_t SMALL = 536;

} // namespace

milliseconds PeerWatch::patience() const {
    if (!keepsBack_) {
        return ANY_TIME;
    }
    return verdict_ == Verdict::QUIET ? A_WHILE : A_MOMENT;
}

bool PeerWatch::look(int fd) {
    switch (verdict_) {
    case Verdict::SENDS_ON:
        return false;
    case Verdict::QUIET:
        return awaitSilence(fd);
    case Verdict::WAITS:
        if (++looks_ < SECOND_THOUGHTS) {
            return true;
        }
        begin();
        break;
    case Verdict::OPEN:
        break;
    }
    return observe(fd);
}

bool PeerWatch::observe(int fd) {
    Traffic now;
    if (!read(fd, now)) {
        verdict_ = Verdict::WAITS;
        return true;
    }
    auto const time = Clock::now();
    Traffic const since{now.segmentsReceived - last_.segmentsReceived,
                        now.bytesReceived - last_.bytesReceived,
                        now.segmentsSent - last_.segmentsSent,
                        now.segmentsSentWithData - last_.segmentsSentWithData};
    if (++looks_ == MOST_LOOKS) {
        verdict_ = Verdict::QUIET;
    }
    bool const nothing = since.segmentsReceived == 0 && since.segmentsSent == 0;
    // A step also ends for a packet of ours, which the kernel may hold back.
    if (keepsBack_ && nothing && time - looked_ < A_MOMENT) {
        owes_ = false;
        return false;
    }
    judge(since, time - looked_);
    bool const silence = keepsBack_ && nothing;
    acknowledged_ = silence;
    bool const isOpen = verdict_ == Verdict::OPEN || verdict_ == Verdict::QUIET;
    keepsBack_ = isOpen && since.segmentsReceived > 0;
    owes_ = since.segmentsReceived > 0 && since.segmentsSent == 0;
    looked_ = time;
    last_ = now;
    messages_ = 0;
    messageBytes_ = 0;
    return silence || verdict_ == Verdict::WAITS;
}

/// The peer may wait after all when it says nothing for a while.
bool PeerWatch::awaitSilence(int fd) {
    auto const time = Clock::now();
    bool const silence = keepsBack_ && time - looked_ >= A_WHILE;
    keepsBack_ = !silence;
    looked_ = time;
    if (!silence) {
        return false;
    }
    Traffic now;
    read(fd, now);
    bool const nothingToAcknowledge = now.segmentsReceived == last_.segmentsReceived;
    if (nothingToAcknowledge) { // We publish, and the peer has nothing to say to it.
        return false;
    }
    begin();
    looks_ = MOST_LOOKS - SECOND_LOOKS;
    last_ = now;
    looked_ = time;
    return true;
}

void PeerWatch::judge(Traffic const& since, Clock::duration pause) {
    if (since.segmentsReceived == 0) {
        return;
    }
    if (acknowledged_ && pause < AT_ONCE) {
        // What it says after data of ours may be the answer to that.
        if (since.segmentsSentWithData == 0 && ++silences_ >= ENOUGH_SILENCES && goingsOn_ == 0) {
            verdict_ = Verdict::WAITS;
        }
    } else if (isFewPackets(since) && pause < LONG && isTooMuch(since)) {
        if (++goingsOn_ == ENOUGH_GOINGS_ON) {
            verdict_ = Verdict::SENDS_ON;
        }
    }
}

/// Whether one who waits would not have sent the last of these segments.
bool PeerWatch::isTooMuch(Traffic const& since) const {
    bool const andNothingSent = since.segmentsSentWithData == 0;
    return (owes_ && andNothingSent) || since.segmentsReceived >= since.segmentsSent + 2;
}

/// Large segments are not held back, and neither is what has grown too long a list of small pieces
/// for the kernel: some seventeen packets.
bool PeerWatch::isFewPackets(Traffic const& since) const {
    constexpr std::uint32_t some = 4;
    constexpr std::size_t smallest = 4;
    return since.bytesReceived < SMALL && messages_ <= some
           && since.bytesReceived < messageBytes_ + (some + messages_) * smallest;
}

/// False where the kernel, or the socket, does not count.
bool PeerWatch::read(int fd, Traffic& traffic) {
    tcp_info info{};
    socklen_t length = sizeof info;
    if (::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) != 0
        || length < offsetof(tcp_info, tcpi_delivery_rate)) {
        return false;
    }
    traffic.segmentsReceived = info.tcpi_data_segs_in;
    traffic.bytesReceived = static_cast<std::uint32_t>(info.tcpi_bytes_received);
    traffic.segmentsSent = info.tcpi_segs_out;
    traffic.segmentsSentWithData = info.tcpi_data_segs_out;
    return true;
}

} // namespace mqtt
