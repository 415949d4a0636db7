#include "krwebhub.hpp"

#include "krwebcalls.hpp"
#include "krwebrequest.hpp"

#include <krinterop/krannotationsmessage.hpp>
#include <krinterop/krimagemessage.hpp>
#include <krinterop/krmcaptopics.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <chrono>
#include <span>

#include <unistd.h>

namespace KR::web {

namespace {

constexpr std::size_t kMaxLogLines = 100;
constexpr std::size_t kMaxResult = 8 << 20; // bytes of JSON, of a call
const std::string kManyPictures =
    "too many different pictures are being looked at, at most " + std::to_string(Pictures::kMaxFeeds);
// Parameters of a client's pictures, behind the topic.
constexpr const char* kResolutionSuffix = "/resolution";
constexpr const char* kColorSpaceSuffix = "/color-space";

Bytes makeServerInfo(const std::string& domain, bool readOnly) {
    ServerInfo info;
    info.name = "KRVision " + domain;
    info.capabilities = {"parameters", "parametersSubscribe"};
    if (!readOnly) {
        info.capabilities.emplace_back("services");
    }
    info.sessionId = std::to_string(getTime_ns() / 1'000'000) + "-" + std::to_string(::getpid());
    info.metadata = {{"readOnly", readOnly ? "true" : "false"}, {"version", KR_VERSION}, {"domain", domain}};
    return share(encodeServerInfo(info));
}

std::vector<std::pair<std::string, Json>> toJsonValues(const std::map<std::string, int>& values) {
    return {values.begin(), values.end()};
}

} // namespace

Hub::Hub(boost::shared_ptr<KRBroker> broker, const std::string& domain, const std::string& module,
         bool readOnly, Post post)
    : readOnly_(readOnly), post_(std::move(post)), serverInfo_(makeServerInfo(domain, readOnly)),
      pictures_(broker), calls_(std::make_unique<Calls>(broker)),
      memory_(
          std::make_unique<MemoryWatch>(broker, module, [this](std::shared_ptr<const MemoryMessage> message) {
              post_([this, message] { showValue(*message); });
          })) {
    SystemEvents events;
    events.onDirectory = [this](Directory directory) {
        post_([this, directory = std::move(directory)] { setDirectory(directory); });
    };
    events.onCameras = [this](Bytes payload) {
        post_([this, payload = std::move(payload)] { showLast(Kind::Cameras, payload); });
    };
    events.onExtractors = [this](Bytes payload) {
        post_([this, payload = std::move(payload)] { showLast(Kind::Extractors, payload); });
    };
    events.onControls = [this](std::map<std::string, int> values) {
        post_([this, values = std::move(values)] { showParameters(values); });
    };
    setDirectory({});
    system_ = std::make_unique<System>(broker, domain, std::move(events));
}

Hub::~Hub() = default;

void Hub::close() {
    for (auto& [id, channel] : channels_) {
        channel.viewings.clear();
        channel.subscribers.clear();
    }
    clients_.clear();
}

void Hub::stop() {
    system_.reset();
    memory_.reset();
    calls_.reset();
    pictures_.stop();
}

void Hub::sendStatus(Client& client, StatusLevel level, const std::string& text) {
    client.sendText(share(encodeStatus(level, text)));
}

// A message may be wrong many times: what is sent back is bounded.
void Hub::sendErrors(Client& client, const std::vector<std::string>& errors) {
    for (std::size_t i = 0; i < std::min(errors.size(), kMaxErrors); ++i) {
        sendStatus(client, StatusLevel::Error, errors[i]);
    }
    if (errors.size() > kMaxErrors) {
        sendStatus(client, StatusLevel::Error,
                   "and " + std::to_string(errors.size() - kMaxErrors) + " more errors in this message");
    }
}

void Hub::add(Client& client) {
    clients_.try_emplace(&client);
    clientNumbers_[&client] = ++lastClient_;
    client.sendText(serverInfo_);
    if (!channelsMessage_) {
        std::vector<ChannelInfo> channels;
        for (const auto& [id, channel] : channels_) {
            channels.push_back(channel.info);
        }
        channelsMessage_ = share(encodeAdvertise(channels));
    }
    client.sendText(channelsMessage_);
    if (!services_.empty()) {
        if (!servicesMessage_) {
            std::vector<ServiceInfo> services;
            for (const auto& [id, service] : services_) {
                services.push_back(service.info);
            }
            servicesMessage_ = share(encodeAdvertiseServices(services));
        }
        client.sendText(servicesMessage_);
    }
    updateInterest();
}

void Hub::remove(Client& client) {
    const auto found = clients_.find(&client);
    if (found == clients_.end()) {
        return;
    }
    while (!found->second.subscriptions.empty()) {
        leave(client, found->second.subscriptions.begin()->first);
    }
    clients_.erase(found);
    clientNumbers_.erase(&client);
    updateInterest();
}

bool Hub::isConnected(Client* client, std::uint64_t number) const {
    const auto found = clientNumbers_.find(client);
    return found != clientNumbers_.end() && found->second == number;
}

void Hub::handleText(Client& client, std::string_view text) {
    try {
        handle(client, decodeText(text));
    } catch (const ProtocolError& error) {
        sendStatus(client, StatusLevel::Error, error.what());
    }
}

void Hub::handleBinary(Client& client, std::span<const unsigned char> bytes) {
    try {
        handle(client, decodeBinary(bytes));
    } catch (const ProtocolError& error) {
        sendStatus(client, StatusLevel::Error, error.what());
    }
}

void Hub::handle(Client& client, const ClientMessage& message) {
    if (const auto* subscription = std::get_if<Subscribe>(&message)) {
        subscribe(client, *subscription);
    } else if (const auto* end = std::get_if<Unsubscribe>(&message)) {
        unsubscribe(client, *end);
    } else if (const auto* get = std::get_if<GetParameters>(&message)) {
        getParameters(client, *get);
    } else if (const auto* set = std::get_if<SetParameters>(&message)) {
        setParameters(client, *set);
    } else if (const auto* names = std::get_if<SubscribeParameters>(&message)) {
        subscribeParameters(client, *names);
    } else if (const auto* call = std::get_if<CallService>(&message)) {
        callService(client, *call);
    } else {
        sendStatus(client, StatusLevel::Error,
                   "this server does not have the operation " + std::get<Unsupported>(message).operation);
    }
}

void Hub::subscribe(Client& client, const Subscribe& message) {
    ClientState& state = clients_.at(&client);
    std::vector<std::string> errors;
    for (const auto& [id, channelId] : message.subscriptions) {
        const auto found = channels_.find(channelId);
        if (found == channels_.end()) {
            errors.push_back("there is no channel " + std::to_string(channelId));
            continue;
        }
        Channel& channel = found->second;
        if (state.subscriptions.contains(id) || channel.subscribers.contains(&client)) {
            errors.push_back("subscription " + std::to_string(id) + " to channel " + channel.info.topic +
                             ": there is one already");
            continue;
        }
        if (state.subscriptions.size() >= kMaxSubscriptions) {
            errors.push_back("subscription to channel " + channel.info.topic + ": a client has at most " +
                             std::to_string(kMaxSubscriptions));
            continue;
        }
        state.subscriptions.emplace(id, channelId);
        channel.subscribers.emplace(&client, id);
        if (channel.kind == Kind::Image) {
            if (!updateViewings(channelId)) {
                errors.push_back(channel.info.topic + ": " + kManyPictures);
            }
        } else if (channel.kind == Kind::Log) {
            for (const Bytes& line : log_) {
                client.sendEach(id, channel.lastTime_ns, line);
            }
        } else if (channel.last) {
            client.sendNewest(id, channel.lastTime_ns, channel.last);
        }
    }
    sendErrors(client, errors);
    updateInterest();
}

void Hub::unsubscribe(Client& client, const Unsubscribe& message) {
    std::vector<std::string> errors;
    for (const std::uint32_t id : message.ids) {
        if (clients_.at(&client).subscriptions.contains(id)) {
            leave(client, id);
        } else {
            errors.push_back("there is no subscription " + std::to_string(id));
        }
    }
    sendErrors(client, errors);
    updateInterest();
}

void Hub::leave(Client& client, std::uint32_t subscription) {
    auto& subscriptions = clients_.at(&client).subscriptions;
    const auto found = subscriptions.find(subscription);
    const auto channel = channels_.find(found->second);
    subscriptions.erase(found);
    client.forget(subscription);
    if (channel != channels_.end()) {
        channel->second.subscribers.erase(&client);
        if (channel->second.subscribers.empty()) {
            channel->second.last.reset();
        }
        updateViewings(channel->first);
    }
}

const PictureRequest& Hub::getPicture(Client& client, int camera) {
    return clients_.at(&client).pictures.try_emplace(camera, PictureRequest{.camera = camera}).first->second;
}

bool Hub::updateViewings(std::uint32_t id) {
    Channel& channel = channels_.at(id);
    if (channel.kind != Kind::Image) {
        return true;
    }
    bool hasAll = true;
    std::set<PictureRequest> wanted;
    for (const auto& [client, subscription] : channel.subscribers) {
        wanted.insert(getPicture(*client, channel.camera));
    }
    std::erase_if(channel.viewings, [&](const auto& viewing) { return !wanted.contains(viewing.first); });
    for (const PictureRequest& request : wanted) {
        if (channel.viewings.contains(request)) {
            continue;
        }
        const auto slot = std::make_shared<PictureSlot>();
        auto viewing = pictures_.view(request, [this, slot, id, request](const SharedPicture& picture) {
            const KRLock lock(slot->mutex);
            slot->newest = picture;
            if (!slot->isPosted) {
                slot->isPosted = true;
                post_([this, slot, id, request] { showPicture(id, request, slot); });
            }
        });
        if (viewing) {
            channel.viewings.emplace(request, std::move(viewing));
        } else {
            hasAll = false;
        }
    }
    return hasAll;
}

void Hub::subscribeParameters(Client& client, const SubscribeParameters& message) {
    ClientState& state = clients_.at(&client);
    if (message.names.empty()) {
        state.hasAllParameters = message.subscribe;
        if (!message.subscribe) {
            state.parameters.clear();
        }
    }
    for (const std::string& name : message.names) {
        if (!message.subscribe) {
            state.parameters.erase(name);
        } else if (name.size() > kMaxParameterName) {
            sendStatus(client, StatusLevel::Error,
                       "a parameter has a name of at most " + std::to_string(kMaxParameterName) + " bytes");
            break;
        } else if (state.parameters.size() < kMaxParameters) {
            state.parameters.insert(name);
        } else {
            sendStatus(client, StatusLevel::Error,
                       "a client subscribes to at most " + std::to_string(kMaxParameters) + " parameters");
            break;
        }
    }
    updateInterest();
}

Hub::Values Hub::getPictureValues(Client& client, const std::set<std::string>& names) {
    Values values;
    for (const auto& [id, channel] : channels_) {
        if (channel.kind != Kind::Image) {
            continue;
        }
        const PictureRequest& picture = getPicture(client, channel.camera);
        for (const auto& [suffix, value] :
             {std::pair(kResolutionSuffix, getResolutionName(picture.resolution)),
              {kColorSpaceSuffix, getColorSpaceName(picture.colorSpace)}}) {
            const std::string name = channel.info.topic + suffix;
            if (names.empty() || names.contains(name)) {
                values.emplace_back(name, value);
            }
        }
    }
    return values;
}

// \return false: it is no parameter of pictures \throws BadRequest a wrong value
bool Hub::setPicture(Client& client, const std::string& name, const Json& value) {
    const bool isResolution = name.ends_with(kResolutionSuffix);
    if (!isResolution && !name.ends_with(kColorSpaceSuffix)) {
        return false;
    }
    const std::size_t suffix = name.rfind('/');
    const auto topic = topics_.find(name.substr(0, suffix));
    if (topic == topics_.end() || channels_.at(topic->second).kind != Kind::Image) {
        return false;
    }
    if (!value.is_string()) {
        throw BadRequest("its value is a text, such as " + std::string(isResolution ? "640x480" : "yuv422"));
    }
    const int camera = channels_.at(topic->second).camera;
    PictureRequest changed = getPicture(client, camera);
    if (isResolution) {
        changed.resolution = parseResolution(value.get<std::string>());
    } else {
        changed.colorSpace = parseColorSpace(value.get<std::string>());
    }
    const PictureRequest before = std::exchange(clients_.at(&client).pictures[camera], changed);
    if (!updateViewings(topic->second)) {
        clients_.at(&client).pictures[camera] = before;
        updateViewings(topic->second);
        throw BadRequest(kManyPictures);
    }
    return true;
}

bool Hub::hasParameter(const ClientState& state, const std::string& name) {
    return state.hasAllParameters || state.parameters.contains(name);
}

void Hub::refuseMany(Client& client) {
    sendStatus(client, StatusLevel::Error,
               "a request names at most " + std::to_string(kMaxParameters) + " parameters");
}

void Hub::getParameters(Client& client, const GetParameters& message) {
    if (message.names.size() > kMaxParameters) {
        refuseMany(client);
        return;
    }
    const bool isAccepted = calls_->useParameters(
        {}, message.names,
        [this, to = &client, number = clientNumbers_.at(&client), message](Calls::Parameters answer) {
            post_([this, to, number, message, answer = std::move(answer)] {
                if (isConnected(to, number)) {
                    Values values = toJsonValues(answer.values);
                    const Values own = getPictureValues(*to, {message.names.begin(), message.names.end()});
                    values.insert(values.end(), own.begin(), own.end());
                    to->sendText(share(encodeParameterValues(values, message.id)));
                }
            });
        });
    if (!isAccepted) {
        sendStatus(client, StatusLevel::Error, "too many requests for parameters wait");
    }
}

void Hub::setParameters(Client& client, const SetParameters& message) {
    if (message.values.size() > kMaxParameters) {
        refuseMany(client);
        return;
    }
    std::set<std::string> own; // of this client's pictures
    Values others;
    std::vector<std::string> errors;
    for (const auto& [name, value] : message.values) {
        try {
            if (setPicture(client, name, value)) {
                own.insert(name);
            } else {
                others.emplace_back(name, value);
            }
        } catch (const BadRequest& error) {
            own.insert(name);
            errors.push_back(escapeText(name, 200) + ": " + error.what());
        }
    }
    sendErrors(client, errors);
    const Values ownValues = own.empty() ? Values() : getPictureValues(client, own);
    const bool isHeard = message.id || std::ranges::any_of(own, [&](const std::string& name) {
                             return hasParameter(clients_.at(&client), name);
                         });
    if (!ownValues.empty() && isHeard) {
        client.sendText(share(encodeParameterValues(ownValues, others.empty() ? message.id : std::nullopt)));
    }
    if (others.empty()) {
        return;
    }
    if (readOnly_) {
        sendStatus(client, StatusLevel::Error, "this server is read-only: parameters cannot be set");
        return;
    }
    const bool isAccepted = calls_->useParameters(
        std::move(others), {},
        [this, to = &client, number = clientNumbers_.at(&client), id = message.id](Calls::Parameters answer) {
            post_([this, to, number, id, answer = std::move(answer)] {
                if (isConnected(to, number)) {
                    sendErrors(*to, answer.failures);
                    if (id) {
                        to->sendText(share(encodeParameterValues(toJsonValues(answer.values), id)));
                    }
                }
                showParameters(answer.values);
            });
        });
    if (!isAccepted) {
        sendStatus(client, StatusLevel::Error, "too many changes of parameters wait; this one is dropped");
    }
}

void Hub::showParameters(const std::map<std::string, int>& values) {
    std::map<std::map<std::string, int>, Bytes> messages; // most clients want the same
    for (auto& [client, state] : clients_) {
        std::map<std::string, int> wanted = values;
        std::erase_if(wanted, [&of = state](const auto& value) { return !hasParameter(of, value.first); });
        if (wanted.empty()) {
            continue;
        }
        Bytes& message = messages[wanted];
        if (!message) {
            message = share(encodeParameterValues(toJsonValues(wanted), std::nullopt));
        }
        client->sendText(message);
    }
}

void Hub::callService(Client& client, const CallService& message) {
    const auto refuse = [&](const std::string& why) {
        client.sendText(share(encodeCallFailure(message, why)));
    };
    if (readOnly_) {
        refuse("this server is read-only");
        return;
    }
    const auto found = services_.find(message.service);
    if (found == services_.end()) {
        refuse("there is no service " + std::to_string(message.service));
        return;
    }
    if (message.encoding != "json") {
        refuse("requests of services are JSON, with the encoding \"json\"");
        return;
    }
    CallService head = message;
    head.payload.clear();
    const bool isAccepted = calls_->call(
        found->second.module, found->second.method, found->second.methods, message.payload,
        [this, to = &client, number = clientNumbers_.at(&client), head](const Calls::Answer& answer) {
            std::string failure = answer.failure;
            if (answer.payload.size() > kMaxResult) {
                failure = "the result takes " + std::to_string(answer.payload.size()) +
                          " bytes of JSON, the limit is " + std::to_string(kMaxResult);
            }
            const Bytes made = share(failure.empty() ? encodeCallResponse(head, answer.payload)
                                                     : encodeCallFailure(head, failure));
            post_([this, to, number, made, hasFailed = !failure.empty()] {
                if (!isConnected(to, number)) {
                    return;
                }
                if (hasFailed) {
                    to->sendText(made);
                } else {
                    to->sendBinary(made);
                }
            });
        });
    if (!isAccepted) {
        refuse("too many calls are in progress");
    }
}

ChannelInfo Hub::describeChannel(Kind kind, const std::string& topic) const {
    ChannelInfo info;
    info.topic = topic;
    info.encoding = kJsonMessageEncoding;
    info.schemaEncoding = kJsonSchemaEncoding;
    info.schemaName = kValueSchemaName;
    switch (kind) {
    case Kind::Image:
        info.encoding = kImageMessageEncoding;
        info.schemaName = "sensor_msgs/msg/CompressedImage";
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
