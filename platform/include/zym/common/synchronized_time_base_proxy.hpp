#pragma once

#include <conv/seconds_duration.hpp>
#include <zym/common/export.hpp>
#include <zym/common/synchronized_time_base.hpp>
#include <zym/common/uuid.hpp>

#include <atomic>
#include <mutex>

namespace zym::common {

/// A client's copy of a server's time: the base class that keeps identities and flags.
///
/// Derived classes read the server's clock, and call `terminate` in their destructor. Every
/// operation may be called from any thread.
class ZYM_COMMON_EXPORT SynchronizedTimeBaseProxy : public SynchronizedTimeBase {
public:
    /// Called when the server's time is known. Not owned.
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

    /// Ends the proxy for ever: nothing can be started after that, and the listener is removed.
    virtual void terminate() = 0;

    /// Sets the listener; null for none. Does not wait for a call of the previous listener to
    /// return.
    virtual void registerListener(Listener* listener);

    /// Starts to read a server's time, and reads it again at intervals. The listener is called
    /// when the time is known.
    /// @return false when already started, or when the server cannot be asked
    virtual bool startSync(Uuid const& server) = 0;
    /// Like `startSync`, but waits until the time is known, and does not call the listener.
    /// @param timeout seconds
    /// @return whether the time is known; otherwise reading has stopped
    virtual bool synchronize(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    /// Stops reading; the time is no longer known.
    /// @return true
    virtual bool stop() = 0;
    /// Reads the server's time again; does nothing while it is not known.
    virtual void forceSync() = 0;

    /// The clock of this process, in seconds, with which the server's clock is compared.
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
    /// The server whose time is read; at first, and for none, `Uuid::NIL`.
    Uuid serverUuid() const;
    void setServerUuid(Uuid const& server);

private:
    Uuid const uuid_;
    mutable std::mutex mutex_; ///< guards serverUuid_; no other lock is taken under it
    Uuid serverUuid_;
    std::atomic<Listener*> listener_;
    std::atomic<bool> synchronized_{false};
    std::atomic<bool> terminated_{false};
};

} // namespace zym::common
