#include "krpeerdirectory.hpp"

#include "krincomingcalls.hpp"
#include "krlink.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <utility>

namespace KR {

namespace {

constexpr std::size_t kMostDeparted = 256; // departed brokers to remember

/// A module of another process on the domain.
class RemoteModule : public KRRemoteModule {
public:
    RemoteModule(const std::string& name, std::shared_ptr<KRPeer> peer)
        : KRRemoteModule(name, peer->getLocation()), peer_(std::move(peer)) {}

    KRValue call(std::string_view method, std::span<const KRValue> arguments) override {
        return peer_->call(getName(), method, arguments);
    }

private:
    const std::shared_ptr<KRPeer> peer_;
};

} // namespace

std::shared_ptr<KRPeer> KRPeerDirectory::find(const std::string& id) const {
    const KRLock lock(mutex_);
    const auto found = neighbors_.find(id);
    return found == neighbors_.end() ? nullptr : found->second.peer;
}

std::vector<std::shared_ptr<KRPeer>> KRPeerDirectory::list() const {
    std::vector<std::shared_ptr<KRPeer>> peers;
    const KRLock lock(mutex_);
    for (const auto& [id, neighbor] : neighbors_) {
        if (neighbor.peer) {
            peers.push_back(neighbor.peer);
        }
    }
    return peers;
}

bool KRPeerDirectory::isSettled(const std::string& id) const {
    const KRLock lock(mutex_);
    const auto found = neighbors_.find(id);
    return found != neighbors_.end() && !(found->second.peer && found->second.peer->isConnecting());
}

std::size_t KRPeerDirectory::getCountOnHost() const {
    const KRLock lock(mutex_);
    return neighbors_.size() - countOverDDS_;
}

bool KRPeerDirectory::isOnHost(const std::string& id) const {
    const KRLock lock(mutex_);
    const auto found = neighbors_.find(id);
    return found != neighbors_.end() && found->second.writer == kOnHost;
}

std::vector<std::string> KRPeerDirectory::listOnHost() const {
    std::vector<std::string> list;
    const KRLock lock(mutex_);
    for (const auto& [id, neighbor] : neighbors_) {
        if (neighbor.writer == kOnHost) {
            list.push_back(id);
        }
    }
    return list;
}

std::set<std::uint32_t> KRPeerDirectory::getPortsOnHost() const {
    std::set<std::uint32_t> ports;
    const KRLock lock(mutex_);
    for (const auto& [id, neighbor] : neighbors_) {
        if (neighbor.writer == kOnHost) {
            ports.insert(neighbor.port);
        }
    }
    return ports;
}

KRPeerDirectory::OtherClaims KRPeerDirectory::findOtherClaims(const std::string& module,
                                                              const KRClaimTime& claimed,
                                                              const std::string& own) const {
    OtherClaims claims;
    const KRLock lock(mutex_);
    const auto hosts = hosts_.find(module);
    if (hosts == hosts_.end()) {
        return claims;
    }
    for (const std::string& id : hosts->second) {
        const Neighbor& neighbor = neighbors_.at(id);
        const KRAnnouncedModule& announced = neighbor.modules.at(module);
        if (!announced.asked || std::pair(announced.claimed, id) < std::pair(claimed, own)) {
            claims.location = neighbor.location;
            return claims;
        }
        claims.later = true;
    }
    return claims;
}

void KRPeerDirectory::describe(KRBrokerDiagnostics& diagnostics) const {
    std::map<std::string, std::vector<std::string>> locations; // of each module that can be called
    for (const KRLocalModule& own : host_.listModules()) {
        if (own.state == KRModuleState::Open) {
            locations[own.name].emplace_back("in this process");
        }
    }
    const KRLock lock(mutex_);
    for (const auto& [id, neighbor] : neighbors_) {
        KRPeerDiagnostics peer;
        peer.location = neighbor.location;
        peer.protocol = neighbor.protocol;
        peer.state = KRPeerDiagnostics::State::Refused;
        if (neighbor.peer) {
            peer.state = neighbor.peer->isConnecting() ? KRPeerDiagnostics::State::Connecting
                                                       : KRPeerDiagnostics::State::Connected;
            neighbor.peer->describeWay(peer);
        }
        for (const auto& [name, announced] : neighbor.modules) {
            if (announced.state == KRModuleState::Open) {
                peer.modules.push_back(escapeText(name));
                locations[name].push_back(neighbor.location);
            }
        }
        diagnostics.peers.push_back(std::move(peer));
    }
    for (auto& [name, list] : locations) {
        if (list.size() > 1) {
            diagnostics.conflicts.push_back({escapeText(name), std::move(list)});
        }
    }
    diagnostics.refusedMessages += refused_;
}

bool KRPeerDirectory::hasRoom(const std::string& id, std::size_t modules) const {
    const auto found = neighbors_.find(id);
    const bool isKnown = found != neighbors_.end();
    const std::size_t others = neighbors_.size() - (isKnown ? 1 : 0);
    const std::size_t otherModules = moduleCount_ - (isKnown ? found->second.modules.size() : 0);
    return others < kMaxBrokers && otherModules + modules <= kMaxModules;
}

void KRPeerDirectory::setModules(const std::string& id, Neighbor& neighbor, KRAnnouncedModules modules) {
    for (const auto& [name, module] : neighbor.modules) {
        const auto found = modules.find(name);
        if (found == modules.end() || found->second != module) {
            changed_.insert(name);
        }
        const auto hosts = hosts_.find(name);
        if (found == modules.end() && hosts != hosts_.end() && std::erase(hosts->second, id) > 0 &&
            hosts->second.empty()) {
            hosts_.erase(hosts);
        }
    }
    for (const auto& [name, module] : modules) {
        if (!neighbor.modules.contains(name)) {
            changed_.insert(name);
            hosts_[name].push_back(id);
        }
    }
    moduleCount_ += modules.size();
    moduleCount_ -= neighbor.modules.size();
    neighbor.modules = std::move(modules);
}

void KRPeerDirectory::accept(const KRPeer::Connection& connection, KRAnnouncement announcement,
                             dds_instance_handle_t writer) {
    const std::string& id = announcement.broker;
    bool isKnown = false;
    bool fits = false;
    std::shared_ptr<KRPeer> peer;
    {
        const KRLock lock(mutex_);
        fits = hasRoom(id, announcement.modules.size());
        const auto found = neighbors_.find(id);
        isKnown = found != neighbors_.end() && found->second.protocol == announcement.protocol;
        if (isKnown) {
            peer = found->second.peer;
        }
    }
    if (!fits) {
        ++refused_;
        refusals_.write(KRLogLevel::Warning, "an announcement of the broker " + announcement.getLocation() +
                                                 " is dropped: there are too many brokers or modules");
        return;
    }
    if (!isKnown) {
        remove(id, "has changed its protocol"); // if it was known with another protocol
        peer = makePeer(connection, announcement);
    }
    {
        const KRLock lock(mutex_);
        std::erase(departed_, id);                              // it is back
        const auto [found, isNew] = neighbors_.try_emplace(id); // also if it is refused: it is known
        Neighbor& neighbor = found->second;
        const bool wasOverDDS = !isNew && neighbor.writer != kOnHost;
        countOverDDS_ += (writer != kOnHost ? 1 : 0) - (wasOverDDS ? 1 : 0);
        neighbor.peer = peer;
        neighbor.location = announcement.getLocation();
        neighbor.protocol = announcement.protocol;
        neighbor.writer = writer;
        neighbor.port = announcement.port;
        setModules(id, neighbor, std::move(announcement.modules));
        for (const auto& [name, module] : neighbor.modules) {
            neighbor.hostedModules |= module.state == KRModuleState::Open;
        }
    }
    if (!isKnown && peer) {
        departures_.write(KRLogLevel::Verbose, "discovered the broker " + peer->getLocation());
        calls_.setPeer(peer);
    }
}

bool KRPeerDirectory::noticeGone(const std::string& id) {
    const KRLock lock(mutex_);
    const auto found = neighbors_.find(id);
    if (found == neighbors_.end()) {
        return false;
    }
    found->second.gone = true;
    return true;
}

bool KRPeerDirectory::takeDeparted(const std::string& id) {
    const KRLock lock(mutex_);
    return std::erase(departed_, id) > 0;
}

void KRPeerDirectory::poll(const std::set<dds_instance_handle_t>& announcers) {
    std::vector<std::string> lost;
    {
        const KRLock lock(mutex_);
        for (const auto& [id, neighbor] : neighbors_) {
            if (neighbor.gone || (neighbor.writer != kOnHost && !announcers.contains(neighbor.writer))) {
                lost.push_back(id);
            }
        }
    }
    for (const std::string& id : lost) {
        remove(id, "is gone or cannot be reached");
    }
    registerModules();
    refusals_.flush();
    conflictLog_.flush();
    departures_.flush();
}

std::shared_ptr<KRPeer> KRPeerDirectory::makePeer(const KRPeer::Connection& connection,
                                                  const KRAnnouncement& announcement) {
    if (announcement.protocol != KRLink::kProtocol) {
        refusals_.write(KRLogLevel::Error, "the broker " + announcement.getLocation() + " speaks protocol " +
                                               std::to_string(announcement.protocol) + ", this one " +
                                               std::to_string(KRLink::kProtocol) +
                                               ": refused, neither reaches the other's modules; install one "
                                               "version on both");
        return nullptr;
    }
    const auto process = static_cast<pid_t>(announcement.pid);
    return std::make_shared<KRPeer>(connection, announcement.broker, announcement.getLocation(), process,
                                    way_.reach(announcement.broker, announcement.local, process));
}

void KRPeerDirectory::remove(const std::string& id, const std::string& why) {
    Neighbor neighbor;
    {
        const KRLock lock(mutex_);
        const auto found = neighbors_.find(id);
        if (found == neighbors_.end()) {
            return;
        }
        countOverDDS_ -= found->second.writer != kOnHost ? 1 : 0;
        setModules(id, found->second, {});
        neighbor = std::move(found->second);
        neighbors_.erase(found);
        if (neighbor.peer) {
            departed_.push_back(id);
            if (departed_.size() > kMostDeparted) {
                departed_.pop_front();
            }
        }
    }
    if (!neighbor.peer) {
        return;
    }
    departures_.write(neighbor.hostedModules ? KRLogLevel::Info : KRLogLevel::Verbose,
                      "the broker " + neighbor.location + " " + why);
    registerModules(); // first, so that a caller whose call failed finds the module gone
    neighbor.peer->setGone("the process of the module, " + neighbor.location + ", " + why);
    calls_.removePeer(id);
    host_.noticeCallerGone(id);
    closeLater(std::move(neighbor.peer));
}

void KRPeerDirectory::closeLater(std::shared_ptr<KRPeer> peer) {
    try {
        host_.post([peer] { peer->close(); }); // may wait for the peer
    } catch (const std::exception&) {          // closed by its last owner
    }
}

std::optional<KRPeerDirectory::Wanted> KRPeerDirectory::chooseModule(const std::string& name, bool isOpenHere,
                                                                     Conflicts& conflicts) const {
    // Duplicate names are only possible between brokers that had not discovered each other. All brokers choose the oldest
    // module.
    const auto note = [&](const std::string& one, const std::string& other) {
        conflicts[{name, one + other}] =
            "there are two modules named " + escapeText(name) + ": one " + one + ", one " + other;
    };
    std::optional<Wanted> best;
    const KRLock lock(mutex_);
    const auto hosts = hosts_.find(name);
    if (hosts == hosts_.end()) {
        return best;
    }
    for (const std::string& id : hosts->second) {
        const Neighbor& neighbor = neighbors_.at(id);
        const KRAnnouncedModule& announced = neighbor.modules.at(name);
        if (!neighbor.peer || announced.asked) {
            continue;
        }
        if (best && announced.state == KRModuleState::Open && best->announced.state == KRModuleState::Open) {
            note(neighbor.location, best->peer->getLocation());
        }
        if (!best ||
            std::pair(announced.claimed, id) < std::pair(best->announced.claimed, best->peer->getId())) {
            best = Wanted{neighbor.peer, announced};
        }
    }
    if (best && isOpenHere &&
        best->announced.state == KRModuleState::Open) { // this process keeps calling its own
        note("in this process", best->peer->getLocation());
    }
    return best;
}

void KRPeerDirectory::registerModules() {
    std::set<std::string> openHere;
    std::set<std::string> names;
    const auto own = host_.listModules();
    {
        const KRLock lock(mutex_);
        names = changed_;
        for (const KRLocalModule& module : own) {
            if (module.state == KRModuleState::Open && hosts_.contains(module.name)) {
                openHere.insert(module.name);
            }
        }
    }
    names.insert(openHere.begin(), openHere.end());
    for (const auto& [key, conflict] : conflicts_) {
        names.insert(key.first);
    }
    Conflicts conflicts;
    std::map<std::string, Wanted> wanted;
    for (const std::string& name : names) {
        if (auto chosen = chooseModule(name, openHere.contains(name), conflicts)) {
            wanted.emplace(name, std::move(*chosen));
        }
        const auto registered = registered_.find(name);
        const auto found = wanted.find(name);
        const bool stays = registered == registered_.end() ||
                           (found != wanted.end() && found->second.peer == registered->second.peer &&
                            found->second.announced.number == registered->second.number);
        if (!stays) {
            host_.removeRemoteModule(registered->second.module);
            registered_.erase(registered);
        }
    }
    logConflicts(conflicts);
    for (const auto& [name, found] : wanted) {
        Registered& registered = registered_[name];
        if (!registered.module) {
            registered = {found.peer, found.announced.number,
                          std::make_shared<RemoteModule>(name, found.peer)};
            host_.setRemoteModule(registered.module, found.announced.state);
        } else if (registered.module->getState() != found.announced.state) {
            host_.setRemoteModule(registered.module, found.announced.state);
        }
    }
    const KRLock lock(mutex_);
    changed_.clear(); // now that nothing has failed
}

// After a kill and restart, a module appears twice until the lease of the killed process is over, so only longer
// conflicts are logged.
void KRPeerDirectory::logConflicts(const Conflicts& conflicts) {
    constexpr std::chrono::milliseconds kMargin{500};
    const auto now = Clock::now();
    std::erase_if(conflicts_, [&](const auto& each) { return !conflicts.contains(each.first); });
    for (const auto& [key, message] : conflicts) {
        Conflict& conflict = conflicts_.try_emplace(key, Conflict{now, false}).first->second;
        if (!conflict.logged && now - conflict.since >= lease_ + kMargin) {
            conflict.logged = true;
            conflictLog_.write(KRLogLevel::Error, message);
        }
    }
}

} // namespace KR
