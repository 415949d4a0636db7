#pragma once

#include "krpictures.hpp"
#include "krwebclient.hpp"
#include "krwebmemory.hpp"
#include "krwebmessages.hpp"
#include "krwebsystem.hpp"

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace KR::web {

class Calls;

/// The channels, services and parameters offered to clients of the protocol, and their subscriptions.
///
/// Belongs to the thread of the connections, on which `post` runs functions, unless noted otherwise.
class Hub {
public:
    static constexpr std::size_t kMaxSubscriptions = 1024; ///< of one client
    static constexpr std::size_t kMaxParameters = 1024;    ///< names in one message, and of one client
    static constexpr std::size_t kMaxParameterName = 1024; ///< bytes, of one that is subscribed to
    static constexpr std::size_t kMaxErrors = 10;          ///< reported of one message

    Hub(boost::shared_ptr<KRBroker> broker, const std::string& domain, const std::string& module,
        bool readOnly, Post post);
    ~Hub();
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    void add(Client& client);
    void remove(Client& client);
    void handleText(Client& client, std::string_view text);
    void handleBinary(Client& client, std::span<const unsigned char> bytes);

    Pictures& getPictures() noexcept { return pictures_; }
    /// Adds a line to the log channel. Any thread.
    void addLog(const Json& line);
    /// Ends all pictures. Then the connections' thread may end.
    void close();
    /// Ends the other threads. Call it once the connections' thread has ended.
    void stop();

private:
    enum class Kind { Image, Value, Event, Annotations, Cameras, Extractors, Log };
    /// The newest picture on its way to the thread of the connections.
    struct PictureSlot {
        KRMutex mutex;
        SharedPicture newest KR_GUARDED_BY(mutex);
        bool isPosted KR_GUARDED_BY(mutex) = false;
    };
    struct Channel {
        ChannelInfo info;
        Kind kind;
        std::string name; // of the key or event
        int camera = -1;
        std::map<Client*, std::uint32_t> subscribers; // with their number of the subscription
        std::map<PictureRequest, std::unique_ptr<Pictures::Viewing>> viewings; // of the subscribers
        Bytes last; // payload, while somebody is subscribed
        std::uint64_t lastTime_ns = 0;
    };
    struct ClientState {
        std::map<std::uint32_t, std::uint32_t> subscriptions; // channel by number of the subscription
        std::map<int, PictureRequest> pictures;               // by camera; the default without
        bool hasAllParameters = false;
        std::set<std::string> parameters; // subscribed to
        std::uint64_t lost = 0;
    };
    struct Service {
        ServiceInfo info;
        std::string module;
        std::string method;
        Methods methods; // of the module
    };

    static const std::string kManyPictures; ///< why a client does not see another one

    void handle(Client& client, const ClientMessage& message);
    void subscribe(Client& client, const Subscribe& message);
    void unsubscribe(Client& client, const Unsubscribe& message);
    void leave(Client& client, std::uint32_t subscription);
    void subscribeParameters(Client& client, const SubscribeParameters& message);
    void setParameters(Client& client, const SetParameters& message);
    void getParameters(Client& client, const GetParameters& message);
    static void refuseMany(Client& client);
    void callService(Client& client, const CallService& message);

    void setDirectory(const Directory& directory);
    void updateServices(const Directory& directory);
    ChannelInfo describeChannel(Kind kind, const std::string& topic) const;
    const PictureRequest& getPicture(Client& client, int camera);
    /// \return false: too many different pictures are being viewed
    bool updateViewings(std::uint32_t channel);
    void showPicture(std::uint32_t channel, const PictureRequest& request,
                     const std::shared_ptr<PictureSlot>& slot);
    using Values = std::vector<std::pair<std::string, Json>>;
    Values getPictureValues(Client& client, const std::set<std::string>& names);
    bool setPicture(Client& client, const std::string& name, const Json& value);
    static bool hasParameter(const ClientState& state, const std::string& name);
    void showValue(const MemoryMessage& message);
    void showLast(Kind kind, const Bytes& payload);
    void showParameters(const std::map<std::string, int>& values);
    void publish(Channel& channel, std::uint64_t time_ns, const Bytes& payload);
    void updateInterest();
    void broadcast(std::string message);
    bool isConnected(Client* client, std::uint64_t number) const;
    static void sendStatus(Client& client, StatusLevel level, const std::string& text);
    static void sendErrors(Client& client, const std::vector<std::string>& errors);

    const bool readOnly_;
    const Post post_;
    const Bytes serverInfo_;
    // Sent to each new client; null after a change until the next client connects.
    Bytes channelsMessage_;
    Bytes servicesMessage_;
    std::uint32_t lastId_ = 0; // of channels and services
    std::map<std::uint32_t, Channel> channels_;
    std::map<std::string, std::uint32_t> topics_; // channels by topic
    std::map<std::uint32_t, Service> services_;
    std::map<std::string, std::uint32_t> serviceNames_;
    std::map<std::string, Methods> methods_; // that the services are of, by module
    std::map<Client*, ClientState> clients_;
    std::map<Client*, std::uint64_t> clientNumbers_; // an address may be used again
    std::uint64_t lastClient_ = 0;
    std::deque<Bytes> log_; // the newest lines
    Interest interest_;

    Pictures pictures_;
    // Last: their threads use what is above. Null once stopped.
    std::unique_ptr<Calls> calls_;
    std::unique_ptr<MemoryWatch> memory_;
    std::unique_ptr<System> system_;
};

} // namespace KR::web
