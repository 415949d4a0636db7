#include "krpeer.hpp"

#include "krvaluecode.hpp"

#include <krplatform/krerror.hpp>

#include <vector>

namespace KR {

namespace {

constexpr const char* kLost = "the call or its answer was lost, the connection was interrupted";
constexpr std::chrono::seconds kGonePatience{10}; // much longer than a poll takes on a busy machine

/// Unique in this process, whichever broker calls; never used again.
std::uint64_t drawSequence() noexcept {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

/// The result in an answer. \throws KRError the answer is an error, or malformed
template <class Decode>
KRValue readAnswer(std::uint32_t status, const Decode& decode, const std::string& module,
                   std::string_view method) {
    try {
        KRValue value = decode();
        switch (status) {
        case KRReply::Result:
            return value;
        case KRReply::Error:
            throw KRError(value[0].to<std::string>(), value[1].to<std::string>(), value[2].to<std::string>());
        default:
            throw KRError(module, std::string(method), kLost);
        }
    } catch (const KRMalformed& error) {
        throw KRError(module, std::string(method),
                      std::string("the answer cannot be understood: ") + error.what());
    }
}

/// Counts something for its lifetime.
class KRCounted {
public:
    explicit KRCounted(std::atomic<int>& count) : count_(count) { ++count_; }
    ~KRCounted() { --count_; }
    KRCounted(const KRCounted&) = delete;
    KRCounted& operator=(const KRCounted&) = delete;

private:
    std::atomic<int>& count_;
};

} // namespace

KRPeer::KRPeer(const Connection& connection, std::string id, std::string location, pid_t process,
               KRLocalWay::Reach reach)
    : own_(connection.id), id_(std::move(id)), location_(std::move(location)), process_(process),
      reach_(std::move(reach)), patience_(connection.patience), onCallOverDDS_(connection.onCallOverDDS),
      callsOverDDS_(connection.callsOverDDS),
      requests_(connection.participant, connection.requestTopic, id_, connection.onMatched),
      replies_(connection.participant, connection.replyTopic, id_, connection.onMatched) {}

void KRPeer::setGone(const std::string& why) {
    {
        const KRLock lock(mutex_);
        if (gone_.empty()) {
            gone_ = why;
        }
        for (const auto& [sequence, pending] : pending_) {
            pending->changed.notifyAll();
        }
        goneChanged_.notifyAll();
    }
    requests_.interrupt(); // now that the reason is known
    replies_.interrupt();
    if (reach_.route) {
        reach_.route->close(why);
    }
}

bool KRPeer::isGone() const {
    const KRLock lock(mutex_);
    return !gone_.empty();
}

void KRPeer::close() {
    requests_.close();
    replies_.close();
}

std::string KRPeer::describe(KRMessageWriter::Outcome outcome) const {
    if (!gone_.empty()) {
        return gone_;
    }
    return outcome == KRMessageWriter::Outcome::TimedOut
               ? "the process of the module, " + location_ + ", has not received anything for " +
                     std::to_string(patience_.count()) + " ms"
               : "the DDS engine refuses the call";
}

void KRPeer::describeWay(KRPeerDiagnostics& diagnostics) const {
    const std::shared_ptr<KRLocalRoute>& route = reach_.route;
    diagnostics.local = route && route->isOpen();
    if (diagnostics.local) {
        diagnostics.way = "socket and shared memory of this machine";
    } else if (!route) {
        diagnostics.way = "DDS: " + reach_.reason;
    } else {
        const std::string problem = route->getProblem();
        diagnostics.way = problem.empty() ? "socket and shared memory of this machine, from the first call on"
                                          : "DDS: " + problem;
    }
}

KRValue KRPeer::call(const std::string& module, std::string_view method, std::span<const KRValue> arguments) {
    if (reach_.route) {
        if (const auto connection = reach_.route->get()) {
            return callLocally(*connection, module, method, arguments);
        }
    }
    onCallOverDDS_(id_);
    return callOverDDS(module, method, arguments);
}

KRValue KRPeer::callLocally(KRLocalConnection& connection, const std::string& module, std::string_view method,
                            std::span<const KRValue> arguments) {
    KRLocalMessage request;
    encodeValue(
        KRValue::array(module, std::string(method), std::vector<KRValue>(arguments.begin(), arguments.end())),
        request);
    KRLocalMessage reply;
    try {
        reply = connection.call(request);
    } catch (const KRError&) { // the connection has ended, or the other has not answered
        if (!connection.isOpen() && reach_.route->isGoneAfterAll()) {
            KRLock lock(mutex_);
            goneChanged_.waitFor(lock, kGonePatience, [this] { // until its modules are gone as well
                mutex_.assertHeld();
                return !gone_.empty();
            });
            if (!gone_.empty()) {
                throw KRError(module, std::string(method), gone_);
            }
        }
        throw KRError(module, std::string(method), kLost);
    }
    return readAnswer(
        reply.code, [&] { return decodeValue(reply); }, module, method);
}

KRValue KRPeer::callOverDDS(const std::string& module, std::string_view method,
                            std::span<const KRValue> arguments) {
    const auto fail = [&](const std::string& why) { throw KRError(module, std::string(method), why); };
    KRRequest request{own_, drawSequence(), KRRequest::Call, module, std::string(method), {}};
    KRComposedBytes message = request.compose(std::vector<KRValue>(arguments.begin(), arguments.end()));
    Pending pending{std::chrono::steady_clock::now(), {}, {}};
    const KRCounted counted(*callsOverDDS_);
    std::string failure;
    {
        const KRLock lock(mutex_);
        failure = gone_;
        if (failure.empty()) {
            pending_.emplace(request.sequence, &pending);
        }
    }
    if (!failure.empty()) {
        fail(failure);
    }
    auto outcome = KRMessageWriter::Outcome::Refused;
    try {
        outcome = requests_.write(std::move(message), patience_);
    } catch (const KRError& error) { // permissions, for instance
        failure = error.getDescription();
    }
    {
        KRLock lock(mutex_);
        if (outcome == KRMessageWriter::Outcome::Sent) {
            pending.changed.wait(lock, [&] {
                mutex_.assertHeld();
                return pending.reply || !gone_.empty();
            });
        }
        pending_.erase(request.sequence);
        if (!pending.reply && failure.empty()) {
            failure = describe(outcome);
        }
    }
    if (!failure.empty()) {
        fail(failure);
    }
    return readAnswer(
        pending.reply->status, [&] { return pending.reply->value.decode(); }, module, method);
}

void KRPeer::takeReply(KRReply reply) {
    const KRLock lock(mutex_);
    const auto found = pending_.find(reply.sequence);
    if (found != pending_.end() && !found->second->reply) {
        found->second->reply = std::move(reply);
        found->second->changed.notifyAll();
    }
}

bool KRPeer::hasCallsOlderThan(std::chrono::steady_clock::duration age) const {
    const KRLock lock(mutex_);
    // Numbers increase, so the first is the oldest.
    return gone_.empty() && !pending_.empty() &&
           std::chrono::steady_clock::now() - pending_.begin()->second->since >= age;
}

void KRPeer::inquire(std::chrono::steady_clock::duration age) {
    struct End {
        KRPeer& peer;
        ~End() { peer.endInquiry(); }
    } const end{*this};
    std::vector<KRValue> sequences;
    {
        const auto now = std::chrono::steady_clock::now();
        const KRLock lock(mutex_);
        for (const auto& [sequence, pending] : pending_) {
            if (now - pending->since < age || sequences.size() >= 2 * KRRequest::kMaxInquired) {
                break;
            }
            sequences.emplace_back(static_cast<std::int32_t>(sequence >> 32));
            sequences.emplace_back(static_cast<std::int32_t>(sequence & 0xffffffff));
        }
    }
    if (!sequences.empty()) {
        const KRRequest request{own_, drawSequence(), KRRequest::Inquiry, "", "", {}};
        requests_.write(request.compose(sequences), patience_);
    }
}

bool KRPeer::reply(std::uint64_t sequence, KRReply::Status status, const KRValue& value) {
    const KRReply reply{own_, sequence, status, {}};
    const auto outcome = replies_.write(reply.compose(value), patience_);
    return outcome == KRMessageWriter::Outcome::Sent || outcome == KRMessageWriter::Outcome::Closed;
}

} // namespace KR
