#include "krincomingcalls.hpp"

#include "krservedcall.hpp"
#include "krvaluecode.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>

#include <cassert>

namespace KR {

namespace {

/// Number of values in a value, including itself.
std::size_t countValues(const KRValue& value) {
    std::size_t count = 1;
    if (value.isArray()) {
        for (std::size_t i = 0; i < value.getSize(); ++i) {
            count += countValues(value[i]);
        }
    }
    return count;
}

} // namespace

/// A call that runs.
class KRIncomingCalls::Served : public KRServedCall {
public:
    Served(std::shared_ptr<KRIncomingCalls> calls, std::shared_ptr<KRPeer> peer, const KRRequest& request,
           std::vector<KRValue> values)
        : KRServedCall(request.broker, request.module, request.method, std::move(values)),
          calls_(std::move(calls)), peer_(std::move(peer)), sequence_(request.sequence) {}
    ~Served() override { calls_->finish(caller, sequence_); }

    bool isCallerGone() const noexcept override { return peer_->isGone(); }

private:
    void answer(KRReply::Status status, const KRValue& value) override {
        if (!peer_->reply(sequence_, status, value)) {
            calls_->refusals_.write(KRLogLevel::Warning,
                                    "the answer of " + escapeText(module + "." + method, 256) +
                                        " is lost: its caller " + peer_->getLocation() + " receives nothing");
        }
    }

    const std::shared_ptr<KRIncomingCalls> calls_;
    const std::shared_ptr<KRPeer> peer_;
    const std::uint64_t sequence_;
};

bool KRIncomingCalls::Caller::mayRun(std::size_t bytes) const {
    return peer && peer->readsReplies() && running.size() < kMaxRunning &&
           (running.empty() || runningBytes + bytes <= kMaxRunningBytes);
}

std::string KRIncomingCalls::findProblem(const Caller& caller, std::size_t bytes) const {
    // One call may have any size that a message may have.
    if (caller.peer) {
        const bool fits = caller.waiting.size() < kMaxWaiting &&
                          (caller.waiting.empty() || caller.waitingBytes + bytes <= kMaxWaitingBytes);
        return fits ? ""
                    : "the broker " + caller.peer->getLocation() + " has " +
                          std::to_string(caller.waiting.size()) + " calls waiting already";
    }
    std::size_t strangers = 0;
    std::size_t calls = 0;
    std::size_t allBytes = 0;
    for (const auto& [id, each] : callers_) {
        if (!each.peer) {
            ++strangers;
            calls += each.waiting.size();
            allBytes += each.waitingBytes;
        }
    }
    const bool fits = strangers <= kMaxStrangers && calls < kMaxStrangersCalls &&
                      (calls == 0 || allBytes + bytes <= kMaxStrangersBytes);
    return fits ? "" : "too many calls of brokers that have not announced themselves";
}

void KRIncomingCalls::take(const KRRequest& request) {
    const KRValue arguments = request.arguments.decode();
    if (!arguments.isArray()) {
        throw KRMalformed("a request is malformed: its arguments are not an array");
    }
    const std::size_t bytes =
        request.arguments.message.size + countValues(arguments) * sizeof(KRValue); // in memory, about
    Waiting call{request, arguments.to<std::vector<KRValue>>(), bytes, std::chrono::steady_clock::now()};
    call.request.arguments = {}; // `arguments` shares the bytes that it needs
    std::shared_ptr<KRPeer> peer;
    {
        const KRLock lock(mutex_);
        if (stopped_) {
            return;
        }
        Caller& caller = callers_[request.broker];
        if (caller.knows(request.sequence)) {
            return; // duplicate
        }
        if (caller.waiting.empty() && caller.mayRun(bytes)) {
            caller.running.emplace(request.sequence, bytes);
            caller.runningBytes += bytes;
            peer = caller.peer;
        } else if (const std::string problem = findProblem(caller, bytes); problem.empty()) {
            caller.waiting.emplace(request.sequence, std::move(call));
            caller.waitingBytes += bytes;
            ++waiting_;
            if (caller.peer && caller.peer->wantReplies()) {
                wake_();
            }
            return;
        } else {
            ++refused_;
            refusals_.write(KRLogLevel::Warning, "a call is dropped: " + problem);
            if (caller.isIdle()) {
                callers_.erase(request.broker);
            }
        }
    }
    if (peer) {
        serve({peer, std::move(call)});
    }
}

void KRIncomingCalls::serve(Ready ready) {
    std::shared_ptr<Served> call;
    try {
        call = std::make_shared<Served>(shared_from_this(), ready.peer, ready.call.request,
                                        std::move(ready.call.arguments));
    } catch (...) {
        finish(ready.call.request.broker, ready.call.request.sequence);
        throw;
    }
    host_.serve(std::move(call));
}

void KRIncomingCalls::poll() {
    std::vector<Ready> ready;
    {
        const auto now = std::chrono::steady_clock::now();
        const KRLock lock(mutex_);
        if (stopped_) {
            return;
        }
        for (auto each = callers_.begin(); waiting_ > 0 && each != callers_.end();) {
            Caller& caller = each->second;
            while (!caller.waiting.empty()) {
                const auto first = caller.waiting.begin();
                Waiting& call = first->second;
                assert(caller.waitingBytes >= call.bytes);
                if (caller.mayRun(call.bytes)) {
                    caller.running.emplace(first->first, call.bytes);
                    caller.runningBytes += call.bytes;
                    caller.waitingBytes -= call.bytes;
                    ready.push_back({caller.peer, std::move(call)});
                } else if (!caller.peer && now - call.since > kPatience) {
                    ++refused_;
                    caller.waitingBytes -= call.bytes;
                    refusals_.write(KRLogLevel::Warning,
                                    "a call is dropped: its broker has not announced itself");
                } else {
                    break;
                }
                caller.waiting.erase(first);
                --waiting_;
            }
            each = caller.isIdle() ? callers_.erase(each) : std::next(each);
        }
    }
    for (Ready& each : ready) {
        serve(std::move(each));
    }
    refusals_.flush();
}

void KRIncomingCalls::finish(const std::string& id, std::uint64_t sequence) noexcept {
    const KRLock lock(mutex_);
    const auto found = callers_.find(id);
    if (found == callers_.end()) {
        return;
    }
    Caller& caller = found->second;
    const auto call = caller.running.find(sequence);
    if (call != caller.running.end()) {
        assert(caller.runningBytes >= call->second);
        caller.runningBytes -= call->second;
        caller.running.erase(call);
    }
    if (!caller.waiting.empty() && !stopped_) {
        wake_();
    }
    if (caller.isIdle()) {
        callers_.erase(found);
    }
    finished_.notifyAll();
}

std::vector<std::uint64_t> KRIncomingCalls::findUnknown(const std::string& caller,
                                                        const std::vector<std::uint64_t>& sequences) {
    std::vector<std::uint64_t> unknown;
    const KRLock lock(mutex_);
    const auto found = callers_.find(caller);
    for (const std::uint64_t sequence : sequences) {
        if (found == callers_.end() || !found->second.knows(sequence)) {
            unknown.push_back(sequence);
        }
    }
    return unknown;
}

void KRIncomingCalls::setPeer(const std::shared_ptr<KRPeer>& peer) {
    const KRLock lock(mutex_);
    Caller& caller = callers_[peer->getId()];
    caller.peer = peer;
    if (!caller.waiting.empty()) {
        peer->wantReplies();
    }
}

void KRIncomingCalls::removePeer(const std::string& id) {
    std::map<std::uint64_t, Waiting> dropped; // destroyed without the lock
    const KRLock lock(mutex_);
    const auto found = callers_.find(id);
    if (found == callers_.end()) {
        return;
    }
    found->second.peer.reset();
    dropped.swap(found->second.waiting);
    waiting_ -= dropped.size();
    found->second.waitingBytes = 0;
    if (found->second.isIdle()) {
        callers_.erase(found);
    }
}

void KRIncomingCalls::stop(std::chrono::milliseconds patience) {
    KRLock lock(mutex_);
    stopped_ = true;
    finished_.waitFor(lock, patience, [this] {
        mutex_.assertHeld();
        for (const auto& [id, caller] : callers_) {
            if (!caller.running.empty()) {
                return false;
            }
        }
        return true;
    });
    callers_.clear();
    waiting_ = 0;
}

} // namespace KR
