#include "krlocalroute.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

#include <utility>

namespace KR {

namespace {

constexpr std::chrono::seconds kConnectPatience{3}; // with a process that is busy or frozen
constexpr std::chrono::seconds kRetry{5};           // after an attempt that failed

} // namespace

void KRLocalRoute::connectLater() {
    {
        const KRLock lock(mutex_);
        if (state_ == State::Idle) {
            state_ = State::Connecting;
        } else if (state_ == State::Failed && Clock::now() >= retry_) {
            state_ = State::Retrying;
        } else {
            return;
        }
    }
    postConnect();
}

std::shared_ptr<KRLocalConnection> KRLocalRoute::get() {
    {
        const KRLock lock(mutex_);
        if (state_ == State::Open) {
            return connection_;
        }
    }
    connectLater();
    KRLock lock(mutex_);
    changed_.wait(lock, [this] {
        mutex_.assertHeld();
        return state_ != State::Connecting;
    });
    return state_ == State::Open ? connection_ : nullptr;
}

bool KRLocalRoute::isGoneAfterAll() {
    KRLock lock(mutex_);
    changed_.wait(lock, [this] {
        mutex_.assertHeld();
        return state_ != State::Connecting && !(state_ == State::Open && !connection_->isOpen());
    });
    return state_ == State::Gone || state_ == State::Closed;
}

void KRLocalRoute::close(const std::string& why) {
    std::shared_ptr<KRLocalConnection> connection;
    {
        const KRLock lock(mutex_);
        state_ = State::Closed;
        connection.swap(connection_);
        changed_.notifyAll();
    }
    if (connection) {
        connection->close(why);
    }
}

bool KRLocalRoute::isSettled() const {
    const KRLock lock(mutex_);
    return state_ != State::Connecting;
}

bool KRLocalRoute::isOpen() const {
    const KRLock lock(mutex_);
    return state_ == State::Open;
}

std::string KRLocalRoute::getProblem() const {
    const KRLock lock(mutex_);
    return problem_;
}

void KRLocalRoute::postConnect() {
    if (!owner_.post([self = shared_from_this()] { self->connect(); })) {
        settle(State::Failed, "there is no thread to connect");
    }
}

void KRLocalRoute::connect() {
    std::shared_ptr<KRLocalConnection> connection;
    try {
        connection = owner_.endpoint->connect(address_, kConnectPatience,
                                              [weak = weak_from_this()](const std::string&) {
                                                  if (const auto self = weak.lock()) {
                                                      self->noticeEnd();
                                                  }
                                              });
    } catch (const std::exception& error) {
        const auto* own = dynamic_cast<const KRError*>(&error);
        settle(State::Failed, own != nullptr ? own->getDescription() : error.what());
        return;
    }
    if (!connection) {
        settle(State::Gone, "nobody listens there any more");
        owner_.onGone(broker_);
        return;
    }
    bool late = false;
    {
        const KRLock lock(mutex_);
        late = !isConnecting(); // closed in the meantime
        if (!late) {
            state_ = State::Open;
            problem_.clear();
            connection_ = connection;
            changed_.notifyAll();
        }
    }
    if (late) {
        connection->close("this process has closed the connection");
        return;
    }
    owner_.onSettled();
    if (!connection->isOpen()) { // it ended before it was registered here
        noticeEnd();
    }
}

void KRLocalRoute::settle(State state, const std::string& problem) {
    {
        const KRLock lock(mutex_);
        if (!isConnecting()) {
            return;
        }
        state_ = state;
        problem_ = problem;
        retry_ = Clock::now() + kRetry;
        changed_.notifyAll();
    }
    owner_.onSettled();
}

void KRLocalRoute::noticeEnd() {
    {
        const KRLock lock(mutex_);
        if (state_ != State::Open || connection_->isOpen()) {
            return; // closed here, not registered yet, or replaced
        }
        state_ = State::Connecting;
        connection_.reset();
        changed_.notifyAll();
    }
    postConnect();
}

} // namespace KR
