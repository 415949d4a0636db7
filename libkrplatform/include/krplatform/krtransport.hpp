#pragma once

#include "krplatform/krdiagnostics.hpp"
#include "krplatform/krerror.hpp"
#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace KR {

class KRBrokerPrivate;

/// State of a module: its name is taken, it can be called, it is exiting.
enum class KRModuleState { Claimed, Open, Closed };

/// A module of this process, as announced to others.
struct KRLocalModule {
    std::string name;     ///< of the module
    std::uint32_t number; ///< unique in this process, never reused
    KRModuleState state;  ///< whether it can be called
};

/// A module of another process, reached through a transport. Thread-safe.
///
/// One object per registration: a module that restarts is a new object.
class KR_EXPORT KRRemoteModule {
public:
    /// \param location  for messages, e.g. "in process 4711 on robot1"
    KRRemoteModule(std::string name, std::string location);
    virtual ~KRRemoteModule();
    KRRemoteModule(const KRRemoteModule&) = delete;
    KRRemoteModule& operator=(const KRRemoteModule&) = delete;

    const std::string& getName() const noexcept { return name_; } ///< of the module
    /// Broker and process, for messages.
    const std::string& getLocation() const noexcept { return location_; }
    /// Unique among all modules, local and remote, that this process has ever known.
    std::uint32_t getNumber() const noexcept { return number_; }
    /// Whether it can be called.
    KRModuleState getState() const noexcept { return state_.load(std::memory_order_acquire); }

    /// Calls a method and waits for its result, for as long as the other process lives.
    /// \throws KRError thrown by the method; the module or its process is gone
    virtual KRValue call(std::string_view method, std::span<const KRValue> arguments) = 0;

private:
    friend class KRDirectory;
    const std::string name_;
    const std::string location_;
    const std::uint32_t number_;
    std::atomic<KRModuleState> state_ = KRModuleState::Claimed; // written with the directory's lock held
};

/// A call that came from another process. Answered once, on a call thread; if destroyed unanswered, the caller gets an
/// error. An answer may block on the caller: it is sent after the call has left its module.
class KR_EXPORT KRIncomingCall {
public:
    /// A call with its arguments.
    KRIncomingCall(std::string from, std::string to, std::string name, std::vector<KRValue> values)
        : caller(std::move(from)), module(std::move(to)), method(std::move(name)),
          arguments(std::move(values)) {}
    virtual ~KRIncomingCall();
    KRIncomingCall(const KRIncomingCall&) = delete;
    KRIncomingCall& operator=(const KRIncomingCall&) = delete;

    /// Sends the result. Once, or fail().
    virtual void succeed(const KRValue& result) noexcept = 0;
    /// Sends an error. Once, or succeed().
    virtual void fail(const KRError& error) noexcept = 0;
    /// Whether the calling process is gone or counts as gone. Transports whose callers can disappear override it; it is true
    /// before KRTransportHost::noticeCallerGone(). Thread-safe.
    virtual bool isCallerGone() const noexcept { return false; }

    const std::string caller;       ///< identity of the calling process
    const std::string module;       ///< to be called
    const std::string method;       ///< to be called
    std::vector<KRValue> arguments; ///< of the call
};

/// The broker, as seen by its transport. Thread-safe; nothing here blocks.
class KR_EXPORT KRTransportHost {
public:
    /// The current modules of this process.
    std::vector<KRLocalModule> listModules() const;

    /// Sets the state of a module of another process; the first call registers it, in place of an earlier one of
    /// the same name.
    void setRemoteModule(const std::shared_ptr<KRRemoteModule>& module, KRModuleState state);
    /// The module is gone.
    void removeRemoteModule(const std::shared_ptr<KRRemoteModule>& module);

    /// Runs the call on a call thread. Call it once the caller can receive the answer. Without a thread or memory for it, it is destroyed unanswered.
    void serve(std::shared_ptr<KRIncomingCall> call) noexcept;
    /// The same on the calling thread; returns when the call has finished.
    void serveHere(const std::shared_ptr<KRIncomingCall>& call) noexcept;
    /// Calls xCallerGone() of every module of this process: a process which may have called it is gone.
    void noticeCallerGone(const std::string& caller) noexcept;
    /// Runs the job on a call thread. The job must not throw. \throws std::system_error no thread; std::bad_alloc
    void post(std::function<void()> job);

private:
    friend class KRBrokerPrivate;
    explicit KRTransportHost(KRBrokerPrivate& broker) : broker_(broker) {}
    KRBrokerPrivate& broker_;
};

/// A broker's link to the brokers of other processes.
class KR_EXPORT KRTransport {
public:
    KRTransport() = default;
    virtual ~KRTransport();
    KRTransport(const KRTransport&) = delete;
    KRTransport& operator=(const KRTransport&) = delete;

    /// Starts; the broker is ready. Returns once existing processes are discovered, or after a time limit.
    /// \throws KRError the link cannot be made
    virtual void start() = 0;
    /// Announces changed modules of this process. Called without a lock held.
    virtual void announceModules() noexcept = 0;
    /// Announces a module whose name has just been taken in this process, and returns once no other process can take
    /// it. \throws KRError another process has the name; the module is then forgotten
    virtual void claim(const std::string& name) = 0;
    /// Result of KRBroker::getDiagnostics(). Thread-safe.
    virtual KRBrokerDiagnostics getDiagnostics() const { return {}; }
    /// Disconnects: calls to other processes fail, including pending ones, and no more calls arrive.
    /// The host is not used after this.
    virtual void stop() noexcept = 0;
};

/// A broker's parsed address.
struct KRBrokerOptions {
    bool memory = true;                     ///< runs the memory module
    std::unique_ptr<KRTransport> transport; ///< null: no other processes
};

/// Parses a broker's address. The host lives until the transport's stop() returns, and is not used before
/// its start(). \throws KRError an invalid address; the link cannot be created
using KRTransportFactory = std::function<KRBrokerOptions(const std::string& url, KRTransportHost& host)>;

/// Registers `factory` with KRBroker::create() for addresses that begin with `scheme`, for example "dds:". The last
/// registration of a scheme wins. Thread-safe.
KR_EXPORT void registerTransport(const std::string& scheme, KRTransportFactory factory);

} // namespace KR
