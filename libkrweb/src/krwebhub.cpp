#include "krwebhub.hpp"

#include "krwebcalls.hpp"

#include <algorithm>
#include <chrono>
#include <span>

#include <unistd.h>

namespace KR::web {

namespace {

constexpr std::size_t kMaxResult = 8 << 20; // bytes of JSON, of a call

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

} // namespace

const std::string Hub::kManyPictures =
    "too many different pictures are being looked at, at most " + std::to_string(Pictures::kMaxFeeds);

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

// A message may have many errors; the number reported is limited.
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

} // namespace KR::web
