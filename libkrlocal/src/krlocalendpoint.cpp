#include "krlocal/krlocalendpoint.hpp"

#include "krlocalclient.hpp"
#include "krlocallanes.hpp"
#include "krlocalserver.hpp"
#include "krlocalsocket.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmutex.hpp>
#include <krplatform/krthread.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <system_error>
#include <thread>

namespace KR {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kCategory = "krlocal";
constexpr std::uint64_t kVersion = 2; // of the protocol
constexpr const char* kAddressMark = "KRLocal/2";
constexpr std::size_t kMaxGreeting = 64;
constexpr std::size_t kMaxSessions = 4096;
constexpr std::size_t kMaxSocketsForLanes = 128; // of either side; beyond, each connection has one socket
constexpr std::size_t kMaxIdentity = 1024;
constexpr std::chrono::seconds kGreetingPatience{5};
constexpr std::chrono::seconds kTick{1};
constexpr std::chrono::seconds kIdleTick{30};  // when nothing is to be done
constexpr std::chrono::seconds kIdleMemory{5}; // after which unused memory is freed
constexpr const char* kTooManyUnderWay =
    "too many descriptors of this user are under way to processes that do not receive them";
constexpr int kUnderWayPause_ms = 10;
constexpr std::uint64_t kWakeId = 0;
constexpr std::uint64_t kListeningId = 1;

/// In constant time, so that timing does not reveal where they differ.
bool isSame(const std::string& a, const std::string& b) noexcept {
    unsigned char difference = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    }
    return difference == 0;
}

} // namespace

bool KRLocalAddress::isOnThisMachine() const {
    return !machine.empty() && machine == getMachineIdentity();
}

std::string KRLocalAddress::toText() const {
    std::ostringstream text;
    text << kAddressMark << ' ' << machine << ' ' << user << ' ' << process << ' ' << socket << ' ' << secret;
    return text.str();
}

std::optional<KRLocalAddress> KRLocalAddress::parse(std::string_view text) {
    constexpr std::size_t kMaxText = 512;
    if (text.size() > kMaxText) {
        return std::nullopt;
    }
    std::istringstream words{std::string(text)};
    std::string mark;
    KRLocalAddress address;
    words >> mark >> address.machine >> address.user >> address.process >> address.socket >> address.secret;
    if (!words || mark != kAddressMark || address.process < 0 || !(words >> std::ws).eof()) {
        return std::nullopt;
    }
    return address;
}

KRLocalConnection::~KRLocalConnection() = default;

class KRLocalEndpoint::Private : public std::enable_shared_from_this<KRLocalEndpoint::Private> {
public:
    Private(KRLocalOptions options, KRLocalService& service)
        : options_(std::move(options)), admission_(options_.group), service_(service),
          server_(std::make_shared<KRLocalServer>(service, disconnected_)) {
        if (options_.id.empty() || options_.id.size() > kMaxIdentity) {
            throw KRError("KRLocalEndpoint", "create",
                          "an identity has 1 to " + std::to_string(kMaxIdentity) + " bytes, not " +
                              std::to_string(options_.id.size()));
        }
        address_ = {getMachineIdentity(), "krvision-" + drawSecret(), drawSecret(), getpid(), geteuid()};
        listening_ = listenAt(address_.socket);
        fcntl(listening_.get(), F_SETFL, O_NONBLOCK);
        epoll_ = KRDescriptor(epoll_create1(EPOLL_CLOEXEC));
        if (!epoll_ || !waker_->getDescriptor() || !watch(waker_->getDescriptor().get(), EPOLLIN, kWakeId) ||
            !watch(listening_.get(), EPOLLIN, kListeningId)) {
            throw KRError("KRLocalEndpoint", "create", std::string("epoll: ") + std::strerror(errno));
        }
        pool_->addWaker(waker_);
        pool_->setLimit(options_.memory);
    }

    void start() {
        thread_ = std::thread([self = shared_from_this()] { self->run(); });
    }

    const KRLocalAddress& getAddress() const noexcept { return address_; }

    std::shared_ptr<KRLocalConnection> connect(const KRLocalAddress& address,
                                               std::chrono::milliseconds patience,
                                               std::function<void(const std::string&)> onGone)
        KR_EXCLUDES(mutex_) {
        const auto self = shared_from_this();
        const auto lanes = std::make_shared<KRLocalLanes>(KRLocalLanes::Owner{
            [self, address, patience](const std::shared_ptr<KRLocalLanes>& owner) {
                return self->hasRoomForLanes() ? self->openLane(address, patience, owner) : nullptr;
            },
            [self](const std::function<void()>& job) { self->callOut([&] { self->service_.post(job); }); },
            [self, onGone = std::move(onGone)](const std::string& why) {
                if (onGone) {
                    self->callOut([&] { onGone(why); });
                }
            }});
        auto first = openLane(address, patience, lanes);
        if (!first) {
            return nullptr;
        }
        lanes->add(std::move(first));
        const KRLock lock(mutex_);
        if (stopped_) {
            throw KRError("KRLocalEndpoint", "connect", "this endpoint has been stopped");
        }
        connections_.push_back(lanes);
        return lanes;
    }

    /// \return null: nobody listens there any more \throws KRError as connect()
    std::shared_ptr<KRLocalClient> openLane(const KRLocalAddress& address, std::chrono::milliseconds patience,
                                            const std::shared_ptr<KRLocalLanes>& lanes) KR_EXCLUDES(mutex_) {
        const auto fail = [](const std::string& why) { throw KRError("KRLocalEndpoint", "connect", why); };
        const auto deadline = Clock::now() + patience;
        if (!address.isOnThisMachine()) {
            fail("the address is of another machine, boot or network namespace");
        }
        KRDescriptor socket = connectTo(address.socket, deadline);
        if (!socket) {
            return nullptr;
        }
        const pid_t process = admission_.admit(socket.get());
        if (address.process != 0 && process != address.process) {
            fail("process " + std::to_string(process) + " listens, not process " +
                 std::to_string(address.process) + " of the address");
        }
        auto channel = std::make_unique<KRLocalChannel>(std::move(socket), process, counts_, waker_);
        try {
            while (!channel->sendGreeting(KRLocalFrame::Hello, kVersion, address.secret + options_.id)) {
                if (Clock::now() >= deadline) {
                    fail(kTooManyUnderWay);
                }
                sleepMilliseconds(kUnderWayPause_ms);
            }
            pollfd readable{channel->getSocket(), POLLIN, 0};
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (::poll(&readable, 1, static_cast<int>(std::max<std::int64_t>(0, left.count()))) != 1) {
                fail("process " + std::to_string(process) + " does not answer");
            }
            const auto welcome = channel->receiveGreeting();
            if (!welcome || welcome->kind != KRLocalFrame::Welcome || welcome->number != kVersion) {
                fail("process " + std::to_string(process) + " speaks another version of the protocol");
            }
        } catch (const KRLocalClosed&) {
            if (!connectTo(address.socket, deadline)) {
                return nullptr; // it has ended in the meantime
            }
            fail("process " + std::to_string(process) + " refuses the connection");
        } catch (const KRLocalMalformed& error) {
            fail("process " + std::to_string(process) + " sent " + error.what());
        } catch (const std::system_error& error) {
            fail(error.what());
        }
        channel->open(pool_, lanes->getLentBytes());
        auto client = std::make_shared<KRLocalClient>(std::move(channel), disconnected_,
                                                      [weak = std::weak_ptr(lanes)](const std::string& why) {
                                                          if (const auto owner = weak.lock()) {
                                                              owner->noticeGone(why);
                                                          }
                                                      });
        {
            const KRLock lock(mutex_);
            if (stopped_) {
                fail("this endpoint has been stopped");
            }
            clients_.emplace(++lastId_, client);
            // No event for replies, which only the callers read.
            if (!watch(client->getSocket(), EPOLLRDHUP | EPOLLONESHOT, lastId_)) {
                clients_.erase(lastId_);
                fail(std::string("epoll: ") + std::strerror(errno));
            }
        }
        waker_->wake();
        return client;
    }

    KRLocalStatistics getStatistics() const KR_EXCLUDES(mutex_) {
        KRLocalStatistics statistics;
        statistics.memory = pool_->getSize();
        statistics.lent = pool_->getLentCount();
        statistics.shared = counts_->shared;
        statistics.streamed = counts_->streamed;
        statistics.connections = server_->getCount();
        statistics.refused = refused_;
        statistics.disconnected = *disconnected_;
        return statistics;
    }

    void stop() noexcept KR_EXCLUDES(mutex_) {
        std::map<std::uint64_t, std::weak_ptr<KRLocalClient>> clients;
        std::vector<std::weak_ptr<KRLocalLanes>> connections;
        {
            const KRLock lock(mutex_);
            stopped_ = true;
            clients.swap(clients_);
            connections.swap(connections_);
        }
        waker_->wake();
        if (thread_.joinable()) {
            if (thread_.get_id() == std::this_thread::get_id()) {
                thread_.detach();
            } else {
                thread_.join();
            }
        }
        const std::string why = "this process has closed the connection";
        for (const auto& each : connections) {
            if (const auto connection = each.lock()) {
                connection->closeSilently(why);
            }
        }
        for (const auto& [id, each] : clients) { // one of them may belong to no connection yet
            if (const auto client = each.lock()) {
                client->closeSilently(why);
            }
        }
        server_->stop();
        KRLock lock(mutex_);
        callbackLeft_.wait(lock, [&] {
            mutex_.assertHeld();
            return callbacks_.size() == callbacks_.count(std::this_thread::get_id());
        });
    }

private:
    struct Greeting {
        std::unique_ptr<KRLocalChannel> channel;
        Clock::time_point deadline;
    };

    bool watch(int descriptor, std::uint32_t events, std::uint64_t id) const {
        epoll_event event{};
        event.events = events;
        event.data.u64 = id;
        return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
    }

    bool hasRoomForLanes() const KR_EXCLUDES(mutex_) {
        const KRLock lock(mutex_);
        return clients_.size() < kMaxSocketsForLanes;
    }

    /// Calls a function of somebody else, unless this endpoint has been stopped, which waits for its end.
    template <class Function>
    void callOut(Function function) KR_EXCLUDES(mutex_) {
        {
            const KRLock lock(mutex_);
            if (stopped_) {
                return;
            }
            callbacks_.insert(std::this_thread::get_id());
        }
        const struct Leave {
            Private& self;
            ~Leave() {
                const KRLock lock(self.mutex_);
                self.callbacks_.erase(self.callbacks_.find(std::this_thread::get_id()));
                self.callbackLeft_.notifyAll();
            }
        } leave{*this};
        function();
    }

    void run() KR_EXCLUDES(mutex_) {
        setThreadName("KRLocal");
        auto nextTick = Clock::now() + kTick;
        bool isBusy = false; // there may be something to do at the next tick
        for (;;) {
            epoll_event event{};
            const auto patience = isBusy || !greeting_.empty() ? kTick : kIdleTick;
            const int count = epoll_wait(epoll_.get(), &event, 1,
                                         static_cast<int>(std::chrono::milliseconds(patience).count()));
            {
                const KRLock lock(mutex_);
                if (stopped_) {
                    break;
                }
            }
            try {
                if (count == 1) {
                    isBusy = isBusy || event.data.u64 == kWakeId;
                    handle(event.data.u64);
                }
                if (Clock::now() >= nextTick) {
                    isBusy = tick();
                    nextTick = Clock::now() + kTick;
                }
            } catch (const std::exception& error) { // no memory
                logError(kCategory, error.what());
            }
        }
        greeting_.clear();
        listening_ = KRDescriptor(); // so that others find that this endpoint is gone
    }

    void handle(std::uint64_t id) KR_EXCLUDES(mutex_) {
        if (id == kWakeId) {
            waker_->reset();
        } else if (id == kListeningId) {
            accept();
        } else if (const auto greeting = greeting_.find(id); greeting != greeting_.end()) {
            if (!greet(*greeting->second.channel, greeting->second.channel)) {
                greeting_.erase(greeting);
            }
        } else if (const auto client = findClient(id)) {
            client->poll(); // the other has closed
        }
    }

    std::shared_ptr<KRLocalClient> findClient(std::uint64_t id) KR_EXCLUDES(mutex_) {
        const KRLock lock(mutex_);
        const auto found = clients_.find(id);
        return found == clients_.end() ? nullptr : found->second.lock();
    }

    void refuse(const std::string& why) {
        if (refused_++ == 0) {
            logWarning(kCategory, "a connection is refused (further refusals are not logged): " + why);
        }
    }

    void accept() KR_EXCLUDES(mutex_) {
        KRDescriptor socket(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!socket) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                if (!std::exchange(isShort_, true)) {
                    logWarning(kCategory, std::string("connections have to wait to be accepted: ") +
                                              std::strerror(errno));
                }
                sleepMilliseconds(50); // it would fail again immediately
            }
            return;
        }
        isShort_ = false;
        if (greeting_.size() >= kMaxGreeting || server_->getCount() >= kMaxSessions) {
            refuse("there are too many");
            return;
        }
        pid_t process = 0;
        try {
            process = admission_.admit(socket.get());
        } catch (const KRError& error) {
            refuse(error.getDescription());
            return;
        }
        std::uint64_t id = 0;
        {
            const KRLock lock(mutex_);
            id = ++lastId_;
        }
        auto channel = std::make_unique<KRLocalChannel>(std::move(socket), process, counts_, waker_);
        if (watch(channel->getSocket(), EPOLLIN | EPOLLRDHUP, id)) {
            greeting_.emplace(id, Greeting{std::move(channel), Clock::now() + kGreetingPatience});
        }
    }

    /// \param owner  of the channel; moved from if it is admitted \return whether to wait for more
    bool greet(KRLocalChannel& channel, std::unique_ptr<KRLocalChannel>& owner) {
        const std::string process = "process " + std::to_string(channel.getProcess());
        try {
            const auto hello = channel.receiveGreeting();
            if (!hello) {
                return true;
            }
            const std::string& body = hello->message.body;
            const std::string& secret = address_.secret;
            if (hello->kind != KRLocalFrame::Hello || hello->number != kVersion) {
                refuse(process + " speaks another version of the protocol");
            } else if (!isSame(body.substr(0, secret.size()), secret)) {
                refuse(process + " does not know the secret");
            } else if (body.size() == secret.size() || body.size() > secret.size() + kMaxIdentity) {
                refuse(process + " has no identity");
            } else {
                KRDescriptor bell(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
                if (!bell) {
                    throw KRError("KRLocalEndpoint", "accept",
                                  std::string("eventfd: ") + std::strerror(errno));
                }
                const std::string name = body.substr(secret.size());
                std::shared_ptr<KRLocalCaller> caller = server_->findCaller(name);
                if (caller && server_->getCount() >= kMaxSocketsForLanes) {
                    return false; // it does with those that it has
                }
                if (!caller) {
                    caller = std::make_shared<KRLocalCaller>(name);
                }
                channel.open(pool_, caller->getLentBytes());
                if (!channel.sendGreeting(KRLocalFrame::Welcome, kVersion, "", bell.get())) {
                    throw KRError("KRLocalEndpoint", "accept", kTooManyUnderWay);
                }
                epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, channel.getSocket(), nullptr);
                server_->add(std::move(owner), std::move(bell), std::move(caller));
            }
        } catch (const KRLocalMalformed& error) {
            refuse(process + " sent " + error.what());
        } catch (const KRLocalClosed&) { // the client has given up
        } catch (const std::exception& error) {
            refuse(error.what());
        }
        return false;
    }

    /// \return whether shared memory or unused lanes are left to look after
    bool tick() KR_EXCLUDES(mutex_) {
        for (auto each = greeting_.begin(); each != greeting_.end();) {
            if (Clock::now() < each->second.deadline) {
                ++each;
                continue;
            }
            refuse("process " + std::to_string(each->second.channel->getProcess()) +
                   " does not say who it is");
            each = greeting_.erase(each);
        }
        bool isLeft = pool_->trim(kIdleMemory);
        isLeft = server_->sendNotices() || isLeft;
        std::vector<std::shared_ptr<KRLocalClient>> clients;
        std::vector<std::shared_ptr<KRLocalLanes>> connections;
        {
            const KRLock lock(mutex_);
            std::erase_if(connections_, [](const auto& each) { return each.expired(); });
            for (const auto& each : connections_) {
                if (auto connection = each.lock()) {
                    connections.push_back(std::move(connection));
                }
            }
            std::erase_if(clients_, [](const auto& each) { return each.second.expired(); });
            for (const auto& [id, each] : clients_) {
                if (auto client = each.lock()) {
                    clients.push_back(std::move(client));
                }
            }
        }
        for (const auto& connection : connections) {
            connection->trim();
        }
        for (const auto& client : clients) {
            isLeft = client->tick() || isLeft;
        }
        return isLeft || clients.size() > connections.size();
    }

    const KRLocalOptions options_;
    const KRLocalAdmission admission_;
    KRLocalService& service_; // not used after stop()
    const std::shared_ptr<KRLocalCounts> counts_ = std::make_shared<KRLocalCounts>();
    const std::shared_ptr<std::atomic<std::uint64_t>> disconnected_ =
        std::make_shared<std::atomic<std::uint64_t>>(0);
    std::atomic<std::uint64_t> refused_ = 0;
    const std::shared_ptr<const KRLocalWaker> waker_ = std::make_shared<const KRLocalWaker>();
    const std::shared_ptr<KRLocalPool> pool_ = KRLocalPool::ofProcess();
    const std::shared_ptr<KRLocalServer> server_;
    // Constant after construction.
    KRLocalAddress address_;
    KRDescriptor epoll_;
    std::thread thread_; // accepts connections, and notices closed ones

    // Used by that thread.
    KRDescriptor listening_; // until it ends
    bool isShort_ = false;   // of descriptors for connections
    std::map<std::uint64_t, Greeting> greeting_;

    mutable KRMutex mutex_;
    KRCondition callbackLeft_;
    bool stopped_ KR_GUARDED_BY(mutex_) = false;
    std::multiset<std::thread::id> callbacks_ KR_GUARDED_BY(mutex_); // under way
    std::uint64_t lastId_ KR_GUARDED_BY(mutex_) = kListeningId;      // of a connection
    std::map<std::uint64_t, std::weak_ptr<KRLocalClient>> clients_ KR_GUARDED_BY(mutex_);
    std::vector<std::weak_ptr<KRLocalLanes>> connections_ KR_GUARDED_BY(mutex_);
};

KRLocalEndpoint::KRLocalEndpoint(KRLocalOptions options, KRLocalService& service)
    : private_(std::make_shared<Private>(std::move(options), service)) {
    private_->start();
}

KRLocalEndpoint::~KRLocalEndpoint() {
    stop();
}

const KRLocalAddress& KRLocalEndpoint::getAddress() const noexcept {
    return private_->getAddress();
}

std::shared_ptr<KRLocalConnection>
KRLocalEndpoint::connect(const KRLocalAddress& address, std::chrono::milliseconds patience,
                         std::function<void(const std::string& why)> onGone) {
    return private_->connect(address, patience, std::move(onGone));
}

KRLocalStatistics KRLocalEndpoint::getStatistics() const {
    return private_->getStatistics();
}

void KRLocalEndpoint::stop() noexcept {
    private_->stop();
}

} // namespace KR
