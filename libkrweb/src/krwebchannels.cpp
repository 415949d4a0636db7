// Channels and services, and the messages sent on them.

#include "krwebhub.hpp"

#include "krwebcalls.hpp"

#include <krinterop/krannotationsmessage.hpp>
#include <krinterop/krimagemessage.hpp>
#include <krinterop/krmcaptopics.hpp>

#include <algorithm>

namespace KR::web {

namespace {

constexpr std::size_t kMaxLogLines = 100;

} // namespace

ChannelInfo Hub::describeChannel(Kind kind, const std::string& topic) const {
    ChannelInfo info;
    info.topic = topic;
    info.encoding = kJsonMessageEncoding;
    info.schemaEncoding = kJsonSchemaEncoding;
    info.schemaName = kValueSchemaName;
    switch (kind) {
    case Kind::Image:
        info.encoding = kImageMessageEncoding;
        info.schemaName = kCompressedImageSchemaName;
        info.schemaEncoding = kImageSchemaEncoding;
        info.schema = getCompressedImageSchema();
        break;
    case Kind::Value:
    case Kind::Event:
        info.schema = getValueSchema();
        break;
    case Kind::Annotations:
        info.schemaName = kAnnotationsSchemaName;
        info.schema = getAnnotationsSchema();
        break;
    case Kind::Cameras:
        info.schemaName = "krvision.Cameras";
        info.schema = R"({"title": "krvision.Cameras", "type": "object"})";
        break;
    case Kind::Extractors:
        info.schemaName = "krvision.Extractors";
        info.schema = R"({"title": "krvision.Extractors", "type": "object"})";
        break;
    case Kind::Log:
        info.schemaName = "krvision.Log";
        info.schema = R"({"title": "krvision.Log", "type": "object"})";
        break;
    }
    return info;
}

void Hub::setDirectory(const Directory& directory) {
    struct Wanted {
        Kind kind;
        std::string name;
        int camera = -1;
    };
    std::map<std::string, Wanted> wanted = {{"/cameras", {Kind::Cameras, ""}},
                                            {"/extractors", {Kind::Extractors, ""}},
                                            {"/log", {Kind::Log, ""}}};
    for (const int camera : directory.cameras) {
        wanted.emplace(getImageTopic(camera), Wanted{Kind::Image, "", camera});
    }
    for (const std::string& key : directory.keys) {
        wanted.emplace(getMemoryTopic(key), Wanted{Kind::Value, key});
        if (key.ends_with(kAnnotationsSuffix) && key.size() > kAnnotationsSuffix.size()) {
            const std::string module = key.substr(0, key.size() - kAnnotationsSuffix.size());
            wanted.emplace(getAnnotationsTopic(module), Wanted{Kind::Annotations, key});
        }
    }
    for (const std::string& event : directory.events) {
        wanted.emplace(getEventTopic(event), Wanted{Kind::Event, event});
    }
    std::vector<std::uint32_t> gone;
    for (auto topic = topics_.begin(); topic != topics_.end();) {
        const auto [name, id] = *topic;
        const auto found = wanted.find(name);
        if (found != wanted.end() && found->second.kind == channels_.at(id).kind) {
            wanted.erase(found);
            ++topic;
            continue;
        }
        while (!channels_.at(id).subscribers.empty()) {
            const auto [client, subscription] = *channels_.at(id).subscribers.begin();
            leave(*client, subscription);
        }
        channels_.erase(id);
        topic = topics_.erase(topic);
        gone.push_back(id);
    }
    std::vector<ChannelInfo> come;
    for (const auto& [topic, channel] : wanted) {
        ChannelInfo info = describeChannel(channel.kind, topic);
        info.id = ++lastId_;
        come.push_back(info);
        const std::uint32_t id = info.id;
        topics_.emplace(topic, id);
        channels_.emplace(
            id, Channel{std::move(info), channel.kind, channel.name, channel.camera, {}, {}, {}, 0});
    }
    if (!gone.empty() || !come.empty()) {
        channelsMessage_.reset();
    }
    if (!gone.empty()) {
        broadcast(encodeUnadvertise(gone));
    }
    if (!come.empty()) {
        broadcast(encodeAdvertise(come));
    }
    if (!readOnly_) {
        updateServices(directory);
    }
    updateInterest();
}

void Hub::updateServices(const Directory& directory) {
    std::vector<std::uint32_t> gone;
    std::erase_if(methods_, [&](const auto& known) {
        const auto found = directory.methods.find(known.first);
        return found == directory.methods.end() || found->second != known.second;
    });
    for (auto service = services_.begin(); service != services_.end();) {
        if (methods_.contains(service->second.module)) {
            ++service;
            continue;
        }
        gone.push_back(service->first);
        serviceNames_.erase(service->second.info.name);
        service = services_.erase(service);
    }
    std::vector<ServiceInfo> come;
    for (const auto& [module, methods] : directory.methods) {
        if (!methods_.emplace(module, methods).second) {
            continue;
        }
        for (const KRMethodDescription& method : *methods) {
            const std::string name = "/" + module + "/" + method.name;
            if (method.name.starts_with('_') || serviceNames_.contains(name)) { // internal; an overload
                continue;
            }
            const std::uint32_t id = ++lastId_;
            ServiceInfo info{id, name, makeRequestSchema(*methods, method.name),
                             makeResponseSchema(*methods, method.name)};
            come.push_back(info);
            serviceNames_.emplace(name, id);
            services_.emplace(id, Service{std::move(info), module, method.name, methods});
        }
    }
    if (!gone.empty() || !come.empty()) {
        servicesMessage_.reset();
    }
    if (!gone.empty()) {
        broadcast(encodeUnadvertiseServices(gone));
    }
    if (!come.empty()) {
        broadcast(encodeAdvertiseServices(come));
    }
}

void Hub::broadcast(std::string message) {
    const Bytes shared = share(std::move(message));
    for (const auto& [client, state] : clients_) {
        client->sendText(shared);
    }
}

void Hub::showPicture(std::uint32_t id, const PictureRequest& request,
                      const std::shared_ptr<PictureSlot>& slot) {
    SharedPicture picture;
    {
        const KRLock lock(slot->mutex);
        picture = std::move(slot->newest);
        slot->isPosted = false;
    }
    const auto channel = channels_.find(id);
    if (channel == channels_.end() || !picture || !picture->failure.empty()) {
        return;
    }
    for (const auto& [client, subscription] : channel->second.subscribers) {
        if (getPicture(*client, channel->second.camera) == request) {
            client->sendNewest(subscription, static_cast<std::uint64_t>(picture->timeStamp) * 1000,
                               Bytes(picture, &picture->message));
        }
    }
}

void Hub::showValue(const MemoryMessage& message) {
    const auto show = [&](const std::string& topic, std::uint64_t time_ns, const Bytes& payload) {
        const auto id = topics_.find(topic);
        if (id != topics_.end()) {
            publish(channels_.at(id->second), time_ns, payload);
        }
    };
    show(message.isEvent ? getEventTopic(message.name) : getMemoryTopic(message.name), message.time_ns,
         message.payload);
    if (message.annotations) {
        show(getAnnotationsTopic(message.name.substr(0, message.name.size() - kAnnotationsSuffix.size())),
             message.imageTime_ns, message.annotations);
    }
}

void Hub::showLast(Kind kind, const Bytes& payload) {
    const char* topic = kind == Kind::Cameras ? "/cameras" : "/extractors";
    publish(channels_.at(topics_.at(topic)), getTime_ns(), payload);
}

void Hub::addLog(const Json& line) {
    post_([this, payload = share(dump(line))] {
        log_.push_back(payload);
        if (log_.size() > kMaxLogLines) {
            log_.pop_front();
        }
        publish(channels_.at(topics_.at("/log")), getTime_ns(), payload);
    });
}

void Hub::publish(Channel& channel, std::uint64_t time_ns, const Bytes& payload) {
    channel.lastTime_ns = time_ns;
    if (channel.subscribers.empty()) {
        return;
    }
    const bool countsEach = channel.kind == Kind::Event || channel.kind == Kind::Log;
    channel.last = countsEach ? nullptr : payload;
    for (const auto& [client, subscription] : channel.subscribers) {
        if (!countsEach) {
            client->sendNewest(subscription, time_ns, payload);
            continue;
        }
        ClientState& state = clients_.at(client);
        if (!client->sendEach(subscription, time_ns, payload)) {
            ++state.lost;
        } else if (state.lost > 0) {
            sendStatus(*client, StatusLevel::Warning,
                       "lost " + std::to_string(state.lost) + " messages: the connection is too slow");
            state.lost = 0;
        }
    }
}

void Hub::updateInterest() {
    Interest interest;
    interest.anybody = !clients_.empty();
    for (const auto& [id, channel] : channels_) {
        if (channel.subscribers.empty()) {
            continue;
        }
        switch (channel.kind) {
        case Kind::Cameras:
            interest.cameras = true;
            break;
        case Kind::Extractors:
            interest.extractors = true;
            break;
        case Kind::Value:
        case Kind::Annotations:
            interest.keys.insert(channel.name);
            break;
        case Kind::Event:
            interest.events.insert(channel.name);
            break;
        case Kind::Image:
        case Kind::Log:
            break;
        }
    }
    for (const auto& [client, state] : clients_) {
        interest.controls = interest.controls || state.hasAllParameters || !state.parameters.empty();
    }
    if (interest == interest_) {
        return;
    }
    interest_ = interest;
    if (system_) {
        system_->setInterest(interest);
    }
    if (memory_) {
        memory_->watch(interest.keys, interest.events);
    }
}

} // namespace KR::web
