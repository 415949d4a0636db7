// The directory of a link: what it announces of its own broker, and what it knows of others.

#include "krlink.hpp"
#include "krremotecall.hpp"
#include "krvaluecode.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krthread.hpp>

#include "krvision.h"

#include <unistd.h>

#include <algorithm>

namespace KR {

namespace {

constexpr const char* kCategory = "krdds";
constexpr std::chrono::milliseconds kClaimPatience{300};
constexpr std::size_t kMaxModules = 10000; // of one broker
constexpr int kAsked =
    3; // the state announced of a module that is not sure of its name; KRModuleState has the others

std::pair<std::int32_t, std::int32_t> getWallClock() {
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    return {static_cast<std::int32_t>(now / 1000000), static_cast<std::int32_t>(now % 1000000)};
}

/// For people: who and where a broker is.
std::string describe(const KRVision_Announcement& announcement) {
    const auto text = [](const char* given) { return std::string(given != nullptr ? given : ""); };
    return "in process " + std::to_string(announcement.pid) + " (" + text(announcement.name) + ") on " +
           text(announcement.host);
}

KRModuleState toState(int state) {
    if (state == kAsked) {
        return KRModuleState::Claimed;
    }
    if (state < 0 || state > static_cast<int>(KRModuleState::Closed)) {
        throw KRMalformed("an announcement is malformed: module state " + std::to_string(state));
    }
    return static_cast<KRModuleState>(state);
}

} // namespace

void KRLink::announceModules() noexcept {
    try {
        const std::lock_guard lock(announceMutex_);
        if (stopping_) {
            return;
        }
        std::vector<KRValue> modules;
        decltype(claims_) claims;
        for (const KRLocalModule& module :
             host_.listModules()) { // with the lock held, so that the last is newest
            const auto known = claims_.find(module.name);
            const bool same = known != claims_.end() && known->second.first == module.number;
            const Stamp stamp = same ? known->second.second : getWallClock();
            claims[module.name] = {module.number, stamp};
            modules.push_back(
                KRValue::array(module.name, static_cast<std::int32_t>(module.number),
                               asked_.contains(module.name) ? kAsked : static_cast<int>(module.state),
                               stamp.first, stamp.second));
        }
        claims_ = std::move(claims);
        std::string encoded;
        const KRComposedBytes composed = encodeValue(modules);
        for (const auto& piece : composed.getPieces()) {
            encoded.append(reinterpret_cast<const char*>(piece.data), piece.size);
        }
        std::string name = options_.name;
        KRVision_Announcement announcement{};
        announcement.broker = id_.data();
        announcement.protocol = kProtocol;
        announcement.name = name.data();
        announcement.host = hostName_.data();
        announcement.pid = static_cast<std::uint32_t>(getpid());
        announcement.modules._buffer = reinterpret_cast<std::uint8_t*>(encoded.data());
        announcement.modules._length = static_cast<std::uint32_t>(encoded.size());
        announcement.modules._maximum = announcement.modules._length;
        checkDDS(dds_write(announcementWriter_, &announcement), "announcement");
    } catch (const std::exception& error) {
        logError(kCategory, std::string("the modules of this process are not announced: ") + error.what());
    }
}

// Of several that take one name at once exactly one must get it. Each asks for it first, and says so; who finds one
// that has it, or asked before, gives up; who finds one that asked later waits for that to be settled, for the other
// may have looked around before this claim came.
void KRLink::claim(const std::string& name) {
    {
        const std::lock_guard lock(announceMutex_);
        asked_.insert(name);
    }
    announceModules();
    // What another had to say before it acknowledged the claim is here by now.
    dds_wait_for_acks(announcementWriter_, DDS_MSECS(kClaimPatience.count()));
    try {
        settleClaim(name);
    } catch (...) {
        const std::lock_guard lock(announceMutex_);
        asked_.erase(name);
        throw;
    }
    {
        const std::lock_guard lock(announceMutex_);
        asked_.erase(name);
    }
    announceModules();
}

void KRLink::settleClaim(const std::string& name) {
    Stamp stamp;
    {
        const std::lock_guard lock(announceMutex_);
        stamp = claims_[name].second;
    }
    const auto deadline = std::chrono::steady_clock::now() + kClaimPatience;
    for (;;) {
        bool waits = false;
        std::string where;
        {
            const std::lock_guard lock(directoryMutex_);
            lookAround();
            where = findOtherClaim(name, stamp, waits);
        }
        if (!where.empty()) {
            throw KRError("KRBroker", "registerModule",
                          "there is a module named " + name + " already, " + where);
        }
        if (!waits || std::chrono::steady_clock::now() > deadline) {
            return;
        }
        sleepMilliseconds(2);
    }
}

std::string KRLink::findOtherClaim(const std::string& name, const Stamp& stamp, bool& waits) const {
    for (const auto& [id, neighbour] : neighbours_) {
        const auto found = neighbour.modules.find(name);
        if (found == neighbour.modules.end()) {
            continue;
        }
        if (!found->second.asked || std::pair(found->second.stamp, id) < std::pair(stamp, id_)) {
            return neighbour.peer->getWhereabouts();
        }
        waits = true;
    }
    return {};
}

void KRLink::lookAround() {
    takeAnnouncements();
    for (const auto& [id, neighbour] : neighbours_) {
        if (neighbour.peer) {
            neighbour.peer->lookForReaders();
        }
    }
    showModules();
}

void KRLink::takeAnnouncements() {
    constexpr std::uint32_t kMost = 16;
    for (;;) {
        void* samples[kMost] = {};
        dds_sample_info_t info[kMost];
        const dds_return_t count = dds_take(announcementReader_, samples, info, kMost, kMost);
        if (count <= 0) {
            return;
        }
        for (dds_return_t i = 0; i < count; ++i) {
            if (info[i].instance_state != DDS_ALIVE_INSTANCE_STATE) {
                const auto* key = static_cast<const KRVision_Announcement*>(samples[i]);
                noticeGone(key->broker != nullptr ? key->broker : "",
                           info[i].instance_state == DDS_NOT_ALIVE_DISPOSED_INSTANCE_STATE
                               ? "has left the domain"
                               : "is gone or cannot be reached");
            } else if (info[i].valid_data) {
                noticeAnnouncement(samples[i]);
            }
        }
        dds_return_loan(announcementReader_, samples, count);
    }
}

void KRLink::noticeAnnouncement(const void* sample) {
    const auto& announcement = *static_cast<const KRVision_Announcement*>(sample);
    const std::string id = announcement.broker != nullptr ? announcement.broker : "";
    if (id.empty() || id == id_) {
        return;
    }
    Neighbour& neighbour = neighbours_[id]; // also one that is refused, which counts as looked at
    neighbour.location = describe(announcement);
    neighbour.protocol = announcement.protocol;
    if (announcement.protocol != kProtocol) {
        if (complaints_.insert(id).second) {
            logError(kCategory,
                     "the broker " + describe(announcement) + " speaks protocol " +
                         std::to_string(announcement.protocol) + ", this one " + std::to_string(kProtocol) +
                         ": refused, neither reaches the other's modules; install one version on both");
        }
        return;
    }
    std::map<std::string, Announced> modules;
    try {
        KRReceivedBytes bytes = KRReceivedBytes::allocate(announcement.modules._length);
        std::copy_n(announcement.modules._buffer, announcement.modules._length, bytes.bytes.get());
        const KRValue list = decodeValue(bytes, 0, bytes.size);
        if (list.getSize() > kMaxModules) {
            throw KRMalformed("an announcement is malformed: too many modules");
        }
        for (std::size_t i = 0; i < list.getSize(); ++i) {
            const KRValue& entry = list[i];
            modules[entry[0].to<std::string>()] = {entry[1].to<int>(),
                                                   toState(entry[2].to<int>()),
                                                   {entry[3].to<int>(), entry[4].to<int>()},
                                                   entry[2].to<int>() == kAsked};
        }
    } catch (const std::exception& error) { // KRError as well: the list is not as it should be
        countMalformed(error.what());
        return;
    }
    neighbour.modules = std::move(modules);
    if (neighbour.peer) {
        return;
    }
    neighbour.peer = std::make_shared<KRPeer>(participant_.get(), requestTopic_, replyTopic_, id_, id,
                                              describe(announcement));
    checkDDS(dds_waitset_attach(waitset_, neighbour.peer->getRequestWriter(), 0), "waitset");
    checkDDS(dds_waitset_attach(waitset_, neighbour.peer->getReplyWriter(), 0), "waitset");
    logVerbose(kCategory, "a broker has come, " + describe(announcement));
    const std::lock_guard lock(peersMutex_);
    peers_[id] = neighbour.peer;
    peerCame_.notify_all();
}

void KRLink::noticeGone(const std::string& id, const std::string& why) {
    const auto found = neighbours_.find(id);
    if (found == neighbours_.end()) {
        return;
    }
    const std::shared_ptr<KRPeer> peer = found->second.peer;
    neighbours_.erase(found);
    complaints_.erase(id);
    if (!peer) {
        return;
    }
    {
        const std::lock_guard lock(peersMutex_);
        peers_.erase(id);
    }
    logInfo(kCategory, "the broker " + peer->getWhereabouts() + " " + why);
    showModules(); // first, so that who hears that a call failed finds the module gone
    peer->setGone("the process of the module, " + peer->getWhereabouts() + ", " + why);
    host_.noticeCallerGone(id);
    dds_waitset_detach(waitset_, peer->getRequestWriter());
    dds_waitset_detach(waitset_, peer->getReplyWriter());
}

void KRLink::showModules() {
    // Of several with one name, which only brokers that had not found each other can have let happen, the one that
    // was there first, for every broker alike.
    std::map<std::string, std::pair<const Neighbour*, const Announced*>> wanted;
    for (const auto& [id, neighbour] : neighbours_) {
        if (!neighbour.peer || !neighbour.peer->readsRequests()) {
            continue;
        }
        for (const auto& [name, announced] : neighbour.modules) {
            if (announced.asked) {
                continue;
            }
            auto& [who, what] = wanted[name];
            if (who != nullptr && announced.state == KRModuleState::Open &&
                what->state == KRModuleState::Open && complaints_.insert(name + "@" + id).second) {
                logError(kCategory, "there are two modules named " + name + ": one " +
                                        neighbour.peer->getWhereabouts() + ", one " +
                                        who->peer->getWhereabouts());
            }
            if (who == nullptr ||
                std::pair(announced.stamp, id) < std::pair(what->stamp, who->peer->getId())) {
                who = &neighbour;
                what = &announced;
            }
        }
    }
    for (const KRLocalModule& own : host_.listModules()) { // which this process goes on calling
        const auto found = wanted.find(own.name);
        if (found != wanted.end() && own.state == KRModuleState::Open &&
            found->second.second->state == KRModuleState::Open) {
            const KRPeer& peer = *found->second.first->peer;
            if (complaints_.insert(own.name + "@" + peer.getId()).second) {
                logError(kCategory, "there are two modules named " + own.name +
                                        ": one in this process, one " + peer.getWhereabouts());
            }
        }
    }
    for (auto shown = shown_.begin(); shown != shown_.end();) {
        const auto found = wanted.find(shown->first);
        const bool stays = found != wanted.end() && found->second.first->peer == shown->second.peer &&
                           found->second.second->number == shown->second.number;
        if (stays) {
            ++shown;
            continue;
        }
        host_.removeRemoteModule(shown->second.module);
        shown = shown_.erase(shown);
    }
    for (const auto& [name, found] : wanted) {
        const auto& [who, what] = found;
        Shown& shown = shown_[name];
        if (!shown.module) {
            shown = {who->peer, what->number, std::make_shared<KRDDSModule>(name, who->peer)};
            host_.setRemoteModule(shown.module, what->state);
        } else if (shown.module->getState() != what->state) {
            host_.setRemoteModule(shown.module, what->state);
        }
    }
}

KRBrokerDiagnostics KRLink::getDiagnostics() const {
    KRBrokerDiagnostics result;
    result.transport = "dds";
    result.domain = options_.domain;
    result.secure = !options_.security.empty();
    result.interfaces = options_.interfaces;
    result.protocol = kProtocol;
    result.malformedMessages = malformed_;
    std::map<std::string, std::vector<std::string>> locations; // of each module that can be called
    for (const KRLocalModule& own : host_.listModules()) {
        if (own.state == KRModuleState::Open) {
            locations[own.name].emplace_back("in this process");
        }
    }
    const std::lock_guard lock(directoryMutex_);
    for (const auto& [id, neighbour] : neighbours_) {
        KRPeerDiagnostics peer{neighbour.location, neighbour.protocol, KRPeerDiagnostics::State::Refused, {}};
        if (neighbour.peer) {
            peer.state = neighbour.peer->readsRequests() ? KRPeerDiagnostics::State::Connected
                                                         : KRPeerDiagnostics::State::Connecting;
        }
        for (const auto& [name, announced] : neighbour.modules) {
            if (announced.state == KRModuleState::Open) {
                peer.modules.push_back(name);
                locations[name].push_back(neighbour.location);
            }
        }
        result.peers.push_back(std::move(peer));
    }
    for (auto& [name, list] : locations) {
        if (list.size() > 1) {
            result.conflicts.push_back({name, std::move(list)});
        }
    }
    return result;
}

} // namespace KR
