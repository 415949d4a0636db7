#include "replay/replaysource.hpp"

#include "tool/progress.hpp"
#include "video/frames.hpp"
#include "video/mcap.hpp"
#include "video/streamcameras.hpp"

#include <krinterop/krjson.hpp>
#include <krinterop/krmcaptopics.hpp>
#include <krplatform/krtext.hpp>
#include <krvision/kroxvfile.hpp>

#include <algorithm>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string_view>

namespace KR::tool {

namespace {

bool isWanted(const std::vector<std::string>& only, const std::string& topic) {
    return only.empty() || std::ranges::find(only, topic) != only.end();
}

void requireTopics(const std::string& path, const std::vector<std::string>& only,
                   const std::vector<std::string>& topics) {
    for (const std::string& topic : only) {
        if (std::ranges::find(topics, topic) == topics.end()) {
            std::string known;
            for (const std::string& each : topics) {
                known += (known.empty() ? "" : ", ") + each;
            }
            throw std::runtime_error(path + ": there is no topic " + topic + " to replay; there are " +
                                     known);
        }
    }
}

class OxvReplay : public ReplaySource {
public:
    OxvReplay(const std::string& path, const std::vector<std::string>& only) : file_(path) {
        file_.requireFrames();
        count_ = std::min(file_.countCompleteFrames(), file_.countExpectedFrames());
        if (count_ == 0) {
            throw std::runtime_error(path + ": there is no image in it");
        }
        std::vector<std::size_t> streams(file_.getStreams().size());
        std::iota(streams.begin(), streams.end(), 0);
        const std::vector<int> numbers = chooseCameras(file_, 0, streams);
        std::vector<std::string> topics;
        for (const std::size_t stream : streams) {
            topics.push_back(getImageTopic(numbers[stream]));
            if (isWanted(only, topics.back())) {
                streams_.push_back({stream, numbers[stream]});
                cameras_.push_back(numbers[stream]);
            }
        }
        requireTopics(path, only, topics);
        std::ranges::sort(cameras_);
        interval_usec_ = estimateInterval(file_, 0, 0);
    }

    void rewind(std::int64_t start_usec) override {
        FrameClock clock(interval_usec_);
        for (frame_ = 0; frame_ < count_; ++frame_) {
            time_usec_ = clock.next(file_.readChunkHeader(frame_, 0).timeStamp);
            if (time_usec_ >= start_usec) {
                break;
            }
        }
        clock_ = clock;
        stream_ = 0;
    }
    std::optional<ReplayMessage> next() override {
        if (stream_ == streams_.size()) {
            stream_ = 0;
            ++frame_;
            if (frame_ < count_) {
                time_usec_ = clock_.next(file_.readChunkHeader(frame_, 0).timeStamp);
            }
        }
        if (frame_ >= count_) {
            return std::nullopt;
        }
        const Stream& stream = streams_[stream_++];
        ReplayMessage message{
            .kind = ReplayMessage::Kind::Image, .time_usec = time_usec_, .camera = stream.camera};
        message.image = file_.makeImage(stream.number);
        file_.readImage(*message.image, frame_, stream.number);
        return message;
    }
    std::vector<std::string> getLosses() const override {
        const std::uint64_t missing = file_.countExpectedFrames() - count_;
        if (missing == 0) {
            return {};
        }
        return {std::to_string(missing) + (missing == 1 ? " frame is" : " frames are") +
                " missing or cut at its end"};
    }

private:
    struct Stream {
        std::size_t number;
        int camera;
    };

    KROxvFile file_;
    std::uint64_t count_ = 0;
    std::vector<Stream> streams_; // that are replayed
    std::int64_t interval_usec_ = 0;
    FrameClock clock_{0};
    std::uint64_t frame_ = 0;
    std::int64_t time_usec_ = 0; // of the frame
    std::size_t stream_ = 0;     // the next one in the frame
};

class McapReplay : public ReplaySource {
public:
    McapReplay(const std::string& path, const std::vector<std::string>& only) : path_(path), only_(only) {
        {
            const KRMcapReader reader(path);
            if (reader.isIndexed() && reader.getStatistics()) {
                start_ns_ = reader.getStatistics()->startTime;
                for (const auto& [id, channel] : reader.getChannels()) {
                    const auto schema = reader.getSchemas().find(channel.schemaId);
                    addTopic(channel.topic, schema != reader.getSchemas().end() &&
                                                KRMcapImages::isImageChannel(channel, &schema->second));
                }
            } else {
                Progress progress(0);
                const McapContent content = readMcap(path, progress);
                start_ns_ = content.startTime;
                for (const McapTopic& topic : content.topics) {
                    addTopic(topic.topic, std::ranges::any_of(content.images, [&](const McapImages& images) {
                                 return images.topic == topic.topic;
                             }));
                }
            }
        }
        std::ranges::sort(topics_);
        requireTopics(path, only, topics_);
        if (topics_.empty()) {
            throw std::runtime_error(path +
                                     ": there is nothing in it to replay: no images, values or events");
        }
        for (const std::string& topic : topics_) {
            if (isWanted(only, topic)) {
                if (const std::optional<int> camera = findCameraOfImageTopic(topic)) {
                    cameras_.push_back(*camera);
                }
            }
        }
        std::ranges::sort(cameras_);
        std::ranges::sort(ignored_);
    }

    void rewind(std::int64_t start_usec) override {
        reader_ = std::make_unique<KRMcapReader>(path_);
        images_ = KRMcapImages();
        KRMcapSelection selection;
        selection.order = KRMcapSelection::Order::Time;
        selection.startTime = start_ns_ + static_cast<std::uint64_t>(start_usec) * 1000;
        selection.isWanted = [this](const KRMcapChannel& channel) { return isWantedChannel(channel.topic); };
        reader_->select(selection);
    }
    std::optional<ReplayMessage> next() override {
        for (KRMcapMessage message; reader_->next(message);) {
            ReplayMessage replayed;
            replayed.time_usec = static_cast<std::int64_t>((message.logTime - start_ns_) / 1000);
            if (read(message, replayed)) {
                return replayed;
            }
        }
        return std::nullopt;
    }
    std::vector<std::string> getLosses() const override {
        std::vector<std::string> losses;
        if (reader_) {
            losses = reader_->getDamage().texts;
        }
        if (refused_ > 0) {
            losses.push_back(std::to_string(refused_) +
                             " messages cannot be replayed; the first one: " + refusal_);
        }
        return losses;
    }

private:
    void addTopic(const std::string& topic, bool isImage) {
        const bool isValue = findKeyOfMemoryTopic(topic) || findEventOfTopic(topic);
        const std::optional<int> camera = findCameraOfImageTopic(topic);
        if (isValue || (isImage && camera && *camera < kMostCameras)) {
            topics_.push_back(topic);
        } else if (!isDescribingTopic(topic)) {
            ignored_.push_back(topic);
        }
    }
    bool isWantedChannel(const std::string& topic) const {
        const bool isKnown = std::ranges::find(topics_, topic) != topics_.end();
        const bool isOfCamera = std::ranges::any_of(
            cameras_, [&](int camera) { return topic == getImagePropertiesTopic(camera); });
        return (isKnown && isWanted(only_, topic)) || isOfCamera;
    }
    // \return whether there is something to replay
    bool read(const KRMcapMessage& message, ReplayMessage& replayed) {
        const std::string& topic = message.channel->topic;
        try {
            const std::optional<std::string_view> event = findEventOfTopic(topic);
            if (const auto name = event ? event : findKeyOfMemoryTopic(topic)) {
                replayed.kind = event ? ReplayMessage::Kind::Event : ReplayMessage::Kind::Value;
                replayed.name = *name;
                const auto json = nlohmann::ordered_json::parse(message.data.begin(), message.data.end());
                replayed.value = KR::toValue(json.at("value"));
                return true;
            }
            KRImage image(1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f); // without a buffer
            if (!images_.take(message, image)) {
                return false; // the properties of an image
            }
            replayed.kind = ReplayMessage::Kind::Image;
            replayed.camera = findCameraOfImageTopic(topic).value_or(0);
            replayed.image = image;
            return true;
        } catch (const std::exception& error) { // not what its topic promises
            if (refused_++ == 0) {
                refusal_ = topic + ": " + escapeText(error.what());
            }
            return false;
        }
    }

    static constexpr int kMostCameras = 128; // of a camera service

    const std::string path_;
    const std::vector<std::string> only_;
    std::uint64_t start_ns_ = 0;      // log time of the first message
    std::vector<std::string> topics_; // that can be replayed
    std::unique_ptr<KRMcapReader> reader_;
    KRMcapImages images_;
    std::uint64_t refused_ = 0;
    std::string refusal_; // why, of the first one
};

} // namespace

std::unique_ptr<ReplaySource> openReplaySource(const std::string& path,
                                               const std::vector<std::string>& only) {
    if (isMcap(path)) {
        return std::make_unique<McapReplay>(path, only);
    }
    try {
        return std::make_unique<OxvReplay>(path, only);
    } catch (const KRNotOxvError&) {
        throw std::runtime_error(path + ": it is neither an oxv nor an mcap file");
    }
}

} // namespace KR::tool
