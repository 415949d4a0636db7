#include "krlocalclient.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

#include <algorithm>

namespace KR {

KRLocalClient::KRLocalClient(std::unique_ptr<KRLocalChannel> channel,
                             std::shared_ptr<std::atomic<std::uint64_t>> disconnected,
                             std::function<void(const std::string& why)> onGone)
    : channel_(std::move(channel)), disconnected_(std::move(disconnected)), onGone_(std::move(onGone)) {}

KRLocalMessage KRLocalClient::call(const KRLocalMessage& request) {
    const auto fail = [](const std::string& why) { throw KRError("KRLocalConnection", "call", why); };
    Pending pending;
    std::uint64_t number = 0;
    {
        const KRLock lock(mutex_);
        if (gone_) {
            fail(why_);
        }
        number = ++lastNumber_;
        pending_.emplace(number, &pending);
    }
    try {
        channel_->send(KRLocalFrame::Request, number, request);
    } catch (const KRLocalClosed&) { // the reason is found by reading
        poll();
    } catch (const KRLocalMalformed& error) {
        disconnect(error.what());
    } catch (...) {
        const KRLock lock(mutex_);
        pending_.erase(number);
        giveLead(); // this call may have become the leader
        throw;
    }
    KRLock lock(mutex_);
    while (!pending.reply && !pending.unanswered && !gone_) {
        if (reading_) {
            followers_.push_back(&pending);
            pending.changed.wait(lock);
            std::erase(followers_, &pending);
            continue;
        }
        reading_ = true;
        lock.unlock();
        readOne(true);
        lock.lock();
        reading_ = false;
    }
    pending_.erase(number);
    giveLead();
    if (pending.reply) {
        return std::move(*pending.reply);
    }
    if (pending.unanswered) {
        fail("the call was not answered");
    }
    fail(why_);
    return {};
}

void KRLocalClient::giveLead() {
    if (reading_ || gone_) {
        return;
    }
    // Only to a waiting caller: another may be blocked in sending until somebody reads.
    const auto found = std::find_if(followers_.rbegin(), followers_.rend(), [](const Pending* pending) {
        return !pending->reply && !pending->unanswered;
    });
    if (found != followers_.rend()) {
        (*found)->changed.notifyOne();
    }
}

bool KRLocalClient::readOne(bool wait) noexcept {
    try {
        auto received = channel_->receive(wait);
        if (!received) {
            return false;
        }
        dispatch(std::move(*received));
        return true;
    } catch (const KRLocalClosed& error) {
        channel_->close();
        setGone(error.what(), true);
    } catch (const KRLocalMalformed& error) {
        disconnect(std::string("sent ") + error.what());
    } catch (const std::exception& error) { // no memory, no descriptors
        channel_->close();
        logWarning("krlocal", "the connection to process " + std::to_string(channel_->getProcess()) +
                                  " is closed: " + error.what());
        setGone(error.what(), true);
    }
    return false;
}

void KRLocalClient::dispatch(KRLocalChannel::Received received) {
    if (received.kind == KRLocalFrame::Notice) {
        return;
    }
    if (received.kind != KRLocalFrame::Reply && received.kind != KRLocalFrame::Unanswered) {
        throw KRLocalMalformed("a message of kind " + std::to_string(received.kind) + " to a caller");
    }
    const KRLock lock(mutex_);
    const auto found = pending_.find(received.number);
    if (found == pending_.end()) {
        throw KRLocalMalformed("a reply to no request");
    }
    Pending& pending = *found->second;
    pending_.erase(found);
    if (received.kind == KRLocalFrame::Reply) {
        pending.reply = std::move(received.message);
    } else {
        pending.unanswered = true;
    }
    pending.changed.notifyOne();
}

std::optional<std::string> KRLocalClient::getEnd() const {
    const KRLock lock(mutex_);
    return gone_ ? std::optional(why_) : std::nullopt;
}

void KRLocalClient::setGone(const std::string& why, bool tell) noexcept {
    {
        const KRLock lock(mutex_);
        if (gone_) {
            return;
        }
        gone_ = true;
        why_ = why;
        for (const auto& [number, pending] : pending_) {
            pending->changed.notifyOne();
        }
    }
    if (!tell || !onGone_) {
        return;
    }
    try {
        onGone_(why);
    } catch (const std::exception& error) {
        logError("krlocal", std::string("the end of a connection is not handled: ") + error.what());
    }
}

void KRLocalClient::close(const std::string& why) {
    setGone(why, true);
    channel_->close();
}

void KRLocalClient::closeSilently(const std::string& why) {
    setGone(why, false);
    channel_->close();
}

void KRLocalClient::poll() {
    KRLock lock(mutex_);
    if (reading_ || gone_) {
        return;
    }
    reading_ = true;
    lock.unlock();
    while (readOne(false)) {
    }
    lock.lock();
    reading_ = false;
    giveLead();
}

bool KRLocalClient::tick() {
    bool isLeft = false;
    try {
        isLeft = channel_->sendNotice();
    } catch (const KRLocalClosed&) {
        poll(); // the reason is found by reading
        return false;
    } catch (const KRLocalMalformed& error) {
        disconnect(error.what());
        return false;
    }
    if (channel_->hasBorrowings()) { // otherwise there is nothing to report
        poll();
    }
    return isLeft || channel_->hasBorrowings();
}

void KRLocalClient::disconnect(const std::string& why) noexcept {
    channel_->disown();
    {
        const KRLock lock(mutex_);
        if (gone_) {
            return;
        }
    }
    ++*disconnected_;
    logWarning("krlocal",
               "process " + std::to_string(channel_->getProcess()) + " is disconnected, it " + why);
    setGone("its process was disconnected, it " + why, true);
}

} // namespace KR
