// Parameters: controls of cameras, and the form of a client's pictures.

#include "krwebhub.hpp"

#include "krwebcalls.hpp"
#include "krwebrequest.hpp"

#include <krplatform/krtext.hpp>
#include <krvision/krcolorspacenames.hpp>

#include <utility>

namespace KR::web {

namespace {

// Parameters of a client's pictures, behind the topic.
constexpr const char* kResolutionSuffix = "/resolution";
constexpr const char* kColorSpaceSuffix = "/color-space";

std::vector<std::pair<std::string, Json>> toJsonValues(const std::map<std::string, int>& values) {
    return {values.begin(), values.end()};
}

} // namespace

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
              {kColorSpaceSuffix, getColorSpaceOption(picture.colorSpace)}}) {
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

} // namespace KR::web
