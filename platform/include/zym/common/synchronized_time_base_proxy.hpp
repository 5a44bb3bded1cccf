#pragma once

#include <conv/seconds_duration.hpp>
#include <zym/common/export.hpp>
#include <zym/common/synchronized_time_base.hpp>
#include <zym/common/uuid.hpp>

#include <atomic>
#include <mutex>

namespace zym::common {

/// A client's view of a server's time: the base that keeps identities and flags.
///
/// Deriving classes read the server's clock and terminate in their destructor. Every operation
/// may be called from any thread.
class ZYM_COMMON_EXPORT SynchronizedTimeBaseProxy : public SynchronizedTimeBase {
public:
    /// Told when the server's time is known. Not owned.
    class ZYM_COMMON_EXPORT Listener {
    public:
        virtual void onTimeSynchronized() = 0;

    protected:
        Listener() = default;
        Listener(Listener const&) = default;
        Listener& operator=(Listener const&) = default;
        ~Listener() = default;
    };

    /// @param uuid the client's own identity
    /// @param listener as for `registerListener`
    SynchronizedTimeBaseProxy(Uuid const& uuid, Listener* listener);
    ~SynchronizedTimeBaseProxy() override;

    /// Ends the proxy for good: nothing can be started any more, the listener is forgotten.
    virtual void terminate() = 0;

    /// Sets the listener; null for none. Does not wait for a call under way to the one before.
    virtual void registerListener(Listener* listener);

    /// Starts to read a server's time, and goes on reading it now and then. The listener is
    /// told when it is known.
    /// @return false when already started, or when the server cannot be asked
    virtual bool startSync(Uuid const& server) = 0;
    /// Like `startSync`, but waits until the time is known and does not tell the listener.
    /// @param timeout seconds
    /// @return whether the time is known; otherwise nothing goes on
    virtual bool synchronize(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    /// Stops reading; the time is not known any more.
    /// @return true
    virtual bool stop() = 0;
    /// Reads the server's time anew; does nothing while it is not known.
    virtual void forceSync() = 0;

    /// The clock of this process that the server's is compared with, in seconds.
    virtual double localTimeBase() const = 0;

    /// Whether the server's time is known.
    bool isSynchronized() const noexcept { return synchronized_; }

protected:
    /// Calls the listener, if there is one, on the calling thread. No lock of this class is held.
    virtual void notifyListener();

    void setSynchronizedFlag(bool synchronized) noexcept { synchronized_ = synchronized; }

    /// Sets the terminated flag.
    /// @return false when it was set already
    bool setTerminatedFlag() noexcept { return !terminated_.exchange(true); }
    bool isTerminated() const noexcept { return terminated_; }

    /// The client's own identity.
    Uuid const& uuid() const noexcept { return uuid_; }
    /// Whose time is read; `Uuid::NIL` for nobody's, as at the start.
    Uuid serverUuid() const;
    void setServerUuid(Uuid const& server);

private:
    Uuid const uuid_;
    mutable std::mutex mutex_; ///< a leaf: guards serverUuid_
    Uuid serverUuid_;
    std::atomic<Listener*> listener_;
    std::atomic<bool> synchronized_{false};
    std::atomic<bool> terminated_{false};
};

} // namespace zym::common
