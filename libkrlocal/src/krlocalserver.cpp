#include "krlocalserver.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace KR {

namespace {

constexpr const char* kServerCategory = "krlocal";
constexpr int kIdleTime_ms = 2000;                     // after which an unneeded thread leaves
constexpr std::chrono::milliseconds kReadingTime{200}; // after which a thread waits for all callers again
constexpr std::uint64_t kMaxRings = 1U << 31;
constexpr std::uint64_t kBell = std::uint64_t{1} << 63; // of an event: the session's bell, not its socket

thread_local const KRLocalServer* servingHere = nullptr;

void throwErrno(const char* what) {
    throw KRError("KRLocalEndpoint", "create", std::string(what) + ": " + std::strerror(errno));
}

} // namespace

KRLocalRequest::KRLocalRequest(std::shared_ptr<KRLocalSession> session, std::uint64_t number,
                               std::size_t bytes, KRLocalMessage received)
    : message(std::move(received)), session_(std::move(session)), number_(number), bytes_(bytes) {}

KRLocalRequest::~KRLocalRequest() {
    message = {}; // returned first
    if (!answered_) {
        try {
            session_->getChannel().send(KRLocalFrame::Unanswered, number_, {});
        } catch (const std::exception&) { // the caller is gone
        }
    }
    session_->finish(bytes_);
}

const std::string& KRLocalRequest::getCaller() const noexcept {
    return session_->getCaller()->getName();
}

bool KRLocalRequest::isCallerGone() const noexcept {
    return session_->hasEnded();
}

pid_t KRLocalRequest::getCallerProcess() const noexcept {
    return session_->getChannel().getProcess();
}

void KRLocalRequest::reply(const KRLocalMessage& answer) {
    if (answered_.exchange(true)) {
        return;
    }
    try {
        session_->getChannel().send(KRLocalFrame::Reply, number_, answer);
    } catch (const KRLocalClosed&) { // noticed by the thread that reads
    } catch (const KRLocalMalformed& error) {
        session_->disconnect(error.what());
    } catch (...) {
        answered_ = false;
        throw;
    }
}

KRLocalService::~KRLocalService() = default;

void KRLocalSession::arm(bool messages) {
    const std::uint32_t events = (messages ? EPOLLIN : 0U) | EPOLLRDHUP;
    if (armed_ == events) {
        return;
    }
    armed_ = events;
    epoll_event event{};
    event.events = events | EPOLLONESHOT;
    event.data.u64 = id_;
    epoll_ctl(epoll_->get(), EPOLL_CTL_MOD, channel_->getSocket(), &event); // fails after removal
}

bool KRLocalSession::takeOver() {
    const KRLock lock(mutex_);
    armed_ = 0;
    return !std::exchange(read_, true);
}

bool KRLocalSession::answerBell() {
    const KRLock lock(mutex_);
    std::uint64_t rings = 0;
    if (::read(bell_.get(), &rings, sizeof rings) == sizeof rings) {
        announced_ += static_cast<std::int64_t>(std::min(rings, kMaxRings));
    }
    if (read_ || paused_ || announced_ <= 0) {
        return false; // the reading thread handles it
    }
    return read_ = true;
}

bool KRLocalSession::readOn() {
    const KRLock lock(mutex_);
    if (read_ || paused_ || ended_) {
        return false;
    }
    return read_ = true;
}

void KRLocalSession::awaitMessage() {
    const KRLock lock(mutex_);
    read_ = false;
    paused_ = caller_->holds(weak_from_this());
    arm(!paused_);
}

void KRLocalSession::begin(std::size_t bytes, bool further) {
    const KRLock lock(mutex_);
    if (further) {
        --announced_;
    }
    read_ = false;
    paused_ = caller_->begin(bytes, weak_from_this());
    arm(!paused_ && announced_ > 0);
}

void KRLocalSession::finish(std::size_t bytes) noexcept {
    for (const auto& held : caller_->finish(bytes)) {
        if (const auto session = held.lock()) {
            session->resume();
        }
    }
}

void KRLocalSession::resume() {
    const KRLock lock(mutex_);
    paused_ = false;
    arm(true);
}

void KRLocalSession::disconnect(const std::string& why) noexcept {
    channel_->disown();
    if (!broken_.exchange(true)) {
        ++*disconnected_;
        logWarning(kServerCategory,
                   "process " + std::to_string(channel_->getProcess()) + " is disconnected, it " + why);
    }
}

KRLocalServer::KRLocalServer(KRLocalService& service,
                             std::shared_ptr<std::atomic<std::uint64_t>> disconnected)
    : service_(service), disconnected_(std::move(disconnected)),
      epoll_(std::make_shared<const KRDescriptor>(epoll_create1(EPOLL_CLOEXEC))),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    epoll_event event{};
    event.events = EPOLLIN;
    if (!*epoll_ || !wake_ || epoll_ctl(epoll_->get(), EPOLL_CTL_ADD, wake_.get(), &event) != 0) {
        throwErrno("epoll");
    }
}

void KRLocalServer::add(std::unique_ptr<KRLocalChannel> channel, KRDescriptor bell,
                        std::shared_ptr<KRLocalCaller> caller) {
    std::shared_ptr<KRLocalSession> session;
    bool first = false;
    {
        const KRLock lock(mutex_);
        if (stopped_) {
            return;
        }
        channel->setPatience(kReadingTime);
        session = std::make_shared<KRLocalSession>(std::move(channel), std::move(bell), std::move(caller),
                                                   ++lastId_, epoll_, disconnected_);
        sessions_.emplace(session->getId(), session);
        epoll_event event{};
        event.data.u64 = session->getId();
        epoll_event ring{};
        ring.events = EPOLLIN | EPOLLET;
        ring.data.u64 = session->getId() | kBell;
        if (epoll_ctl(epoll_->get(), EPOLL_CTL_ADD, session->getChannel().getSocket(), &event) != 0 ||
            epoll_ctl(epoll_->get(), EPOLL_CTL_ADD, session->getBell(), &ring) != 0) {
            sessions_.erase(session->getId());
            throwErrno("epoll_ctl");
        }
        first = threads_ == 0;
    }
    if (first) {
        startThread();
    }
    session->awaitMessage();
}

std::size_t KRLocalServer::getCount() const {
    const KRLock lock(mutex_);
    return sessions_.size();
}

std::shared_ptr<KRLocalCaller> KRLocalServer::findCaller(const std::string& name) const {
    const KRLock lock(mutex_);
    for (const auto& [id, session] : sessions_) {
        if (session->getCaller()->getName() == name) {
            return session->getCaller();
        }
    }
    return nullptr;
}

void KRLocalServer::startThread() {
    {
        const KRLock lock(mutex_);
        if (stopped_) {
            return;
        }
        ++threads_;
    }
    ++waiting_;
    try {
        service_.post([self = shared_from_this()] { self->run(); });
    } catch (const std::exception& error) { // the other threads continue
        --waiting_;
        const KRLock lock(mutex_);
        --threads_;
        left_.notifyAll();
        logError(kServerCategory, std::string("no thread to serve requests: ") + error.what());
    }
}

void KRLocalServer::run() {
    servingHere = this;
    while (!stopped_) {
        epoll_event event{};
        const int count = epoll_wait(epoll_->get(), &event, 1, waiting_ > kWaiting ? kIdleTime_ms : -1);
        if (stopped_) {
            break;
        }
        if (count == 1) {
            if (waiting_.fetch_sub(1) == 1) {
                startThread(); // otherwise no thread would wait
            }
            serve(event.data.u64);
            ++waiting_;
        } else if (count == 0) {
            int waiting = waiting_;
            while (waiting > kWaiting && !waiting_.compare_exchange_weak(waiting, waiting - 1)) {
            }
            if (waiting > kWaiting) {
                ++waiting_; // undone at the end of this function
                break;
            }
        }
    }
    --waiting_;
    servingHere = nullptr;
    const KRLock lock(mutex_);
    --threads_;
    left_.notifyAll();
}

void KRLocalServer::serve(std::uint64_t event) {
    std::shared_ptr<KRLocalSession> session;
    {
        const KRLock lock(mutex_);
        const auto found = sessions_.find(event & ~kBell);
        if (found == sessions_.end()) {
            return;
        }
        session = found->second;
    }
    bool reads = (event & kBell) != 0 ? session->answerBell() : session->takeOver();
    while (reads) {
        reads = serveNext(session) && !stopped_ && session->readOn();
    }
}

std::optional<KRLocalChannel::Received> KRLocalServer::receive(KRLocalChannel& channel) {
    struct Count {
        std::atomic<int>& reading;
        const bool waits = reading++ < kMaxReading;
        ~Count() { --reading; }
    } const count{reading_};
    return channel.receive(count.waits);
}

bool KRLocalServer::serveNext(const std::shared_ptr<KRLocalSession>& session) {
    std::shared_ptr<KRLocalRequest> request;
    try {
        auto received = receive(session->getChannel());
        if (!received || received->kind == KRLocalFrame::Notice) {
            session->awaitMessage();
            return false;
        }
        if (received->kind != KRLocalFrame::Request && received->kind != KRLocalFrame::Further) {
            throw KRLocalMalformed("a message of kind " + std::to_string(received->kind) + " to a server");
        }
        session->begin(received->streamedBytes, received->kind == KRLocalFrame::Further);
        request.reset(new KRLocalRequest(session, received->number, received->streamedBytes,
                                         std::move(received->message)));
    } catch (const KRLocalClosed&) {
        remove(session);
        return false;
    } catch (const KRLocalMalformed& error) {
        session->disconnect(std::string("sent ") + error.what());
        remove(session);
        return false;
    } catch (const std::exception& error) { // no memory, no descriptors
        logWarning(kServerCategory, "the connection of process " +
                                        std::to_string(session->getChannel().getProcess()) +
                                        " is closed: " + error.what());
        remove(session);
        return false;
    }
    service_.serve(std::move(request));
    return true;
}

void KRLocalServer::remove(const std::shared_ptr<KRLocalSession>& session) {
    bool last = false;
    {
        const KRLock lock(mutex_);
        if (sessions_.erase(session->getId()) == 0) {
            return;
        }
        last = std::none_of(sessions_.begin(), sessions_.end(), [&](const auto& each) {
            return each.second->getCaller() == session->getCaller();
        });
    }
    epoll_ctl(epoll_->get(), EPOLL_CTL_DEL, session->getChannel().getSocket(), nullptr);
    epoll_ctl(epoll_->get(), EPOLL_CTL_DEL, session->getBell(), nullptr); // the caller may hold it for longer
    session->end();
    session->getChannel().close();
    if (last && !stopped_) {
        service_.noticeCallerGone(session->getCaller()->getName());
    }
}

bool KRLocalServer::sendNotices() {
    std::vector<std::shared_ptr<KRLocalSession>> sessions;
    {
        const KRLock lock(mutex_);
        for (const auto& [id, session] : sessions_) {
            sessions.push_back(session);
        }
    }
    bool isLeft = false;
    for (const auto& session : sessions) {
        try {
            isLeft = session->getChannel().sendNotice() || isLeft;
        } catch (const KRLocalClosed&) { // noticed by the thread that reads
        } catch (const KRLocalMalformed& error) {
            session->disconnect(error.what());
        }
    }
    return isLeft;
}

void KRLocalServer::stop() noexcept {
    std::map<std::uint64_t, std::shared_ptr<KRLocalSession>> sessions;
    {
        const KRLock lock(mutex_);
        stopped_ = true;
        sessions.swap(sessions_);
    }
    constexpr std::uint64_t kOne = 1;
    [[maybe_unused]] const auto written = ::write(wake_.get(), &kOne, sizeof kOne);
    for (const auto& [id, session] : sessions) {
        session->end();
        session->getChannel().close(); // ends replies that block
    }
    const int own = servingHere == this ? 1 : 0;
    KRLock lock(mutex_);
    left_.wait(lock, [&] {
        mutex_.assertHeld();
        return threads_ <= own;
    });
}

} // namespace KR
