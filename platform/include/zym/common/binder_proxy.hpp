#pragma once

#include <conv/seconds_duration.hpp>
#include <zym/common/binder.hpp>
#include <zym/common/export.hpp>
#include <zym/common/uuid.hpp>

#include <cstdint>
#include <memory>

namespace zym::common {

/// A client's side of a binding to a server: the base class that keeps the phase (binding, bound,
/// unbinding).
///
/// Derived classes exchange the messages. They call `startBinding` before and `endBinding` after
/// each attempt, or `startUnbinding` and `endUnbinding`, and `terminate` in their destructor.
///
/// ### Threads
/// Every operation may be called from any thread. Listeners are called with no lock held, on
/// the thread that ends a phase. They may call every operation that does not wait, and may destroy
/// the proxy.
class ZYM_COMMON_EXPORT BinderProxy {
public:
    /// Learns how a phase ended. Not owned.
    class ZYM_COMMON_EXPORT Listener {
    public:
        /// A binding has ended.
        /// @param error SUCCESS or ALREADY_BOUND when bound now; otherwise why not
        virtual void onBound(Binder::Error error) = 0;
        /// An unbinding has ended.
        /// @param error SUCCESS when no longer bound; otherwise nothing has changed
        virtual void onUnbound(Binder::Error error) = 0;

    protected:
        Listener() = default;
        Listener(Listener const&) = default;
        Listener& operator=(Listener const&) = default;
        ~Listener() = default;
    };

    /// @param uuid the client's own identity
    /// @param listener may be null; must live until `terminate` has returned
    BinderProxy(Uuid const& uuid, Listener* listener);
    virtual ~BinderProxy();

    BinderProxy(BinderProxy const&) = delete;
    BinderProxy& operator=(BinderProxy const&) = delete;

    /// The server's time in whole seconds; meaningful while `isTimeBaseSynchronized`.
    virtual std::uint32_t timeBase() const = 0;

    /// Ends the proxy for good: nothing can be started any more, and once this returns the
    /// listener is never called. Waits for listener calls under way on other threads, so do not
    /// hold a lock that the listener takes; inside a listener call it does not wait.
    virtual void terminate();

    /// Binds to a server and waits for the outcome.
    /// @param timeout seconds to wait for the server's answer
    virtual Binder::Error bindSync(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    /// Starts to bind to a server; the listener's `onBound` reports the outcome.
    /// @param timeout seconds to wait for the server's answer
    /// @return SUCCESS when under way; otherwise why not, and the listener is not called
    virtual Binder::Error bind(Uuid const& server, conv::SecondsDuration const& timeout) = 0;
    /// Unbinds from the server, or cancels a binding under way, and waits for the outcome.
    /// @param timeout seconds to wait for the server's answer
    virtual Binder::Error unbindSync(conv::SecondsDuration const& timeout) = 0;
    /// Starts to unbind from the server or to cancel a binding under way; the listener's
    /// `onUnbound` reports the outcome.
    /// @param timeout seconds to wait for the server's answer
    /// @return SUCCESS when under way; otherwise why not, and the listener is not called
    virtual Binder::Error unbind(conv::SecondsDuration const& timeout) = 0;

    /// Reads the server's time again.
    virtual void forceTimeBaseSync() = 0;
    virtual bool isTimeBaseSynchronized() const = 0;

protected:
    /// The client's own identity.
    Uuid const& uuid() const noexcept { return uuid_; }
    /// The server of the last successful `startBinding`; `Uuid::NIL` before the first.
    Uuid serverUuid() const;
    bool isTerminated() const;

    /// Begins a binding and records its server.
    /// @return SUCCESS: go ahead; CANCELLED: terminated; BUSY: a phase is under way;
    ///         ALREADY_BOUND: unbind first
    Binder::Error startBinding(Uuid const& server);
    /// Ends the binding under way and calls the listener; does nothing when there is none. An
    /// exception of the listener leaves this operation, with the phase ended; the same holds for
    /// `endUnbinding`.
    /// @param error SUCCESS and ALREADY_BOUND mean that the client is bound now
    void endBinding(Binder::Error error);

    /// Begins an unbinding. Allowed while a binding is under way, which it cancels.
    /// @return SUCCESS: go ahead; CANCELLED: terminated; BUSY: already unbinding; NOT_BOUND:
    ///         neither bound nor binding
    Binder::Error startUnbinding();
    /// Ends the unbinding under way and calls the listener; does nothing when there is none.
    /// @param error SUCCESS: neither bound nor binding from now on; otherwise that has not changed
    void endUnbinding(Binder::Error error);

private:
    struct Phases;

    Uuid const uuid_;
    std::shared_ptr<Phases> const
        phases_; ///< shared with listener calls, which may destroy the proxy
};

} // namespace zym::common
