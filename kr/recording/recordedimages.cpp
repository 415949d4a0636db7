#include "recording/recordedimages.hpp"

#include "tool/progress.hpp"
#include "video/mcap.hpp"
#include "video/streamcameras.hpp"

#include <krinterop/krmcaptopics.hpp>
#include <krvision/kroxvfile.hpp>

#include <algorithm>
#include <numeric>
#include <set>
#include <stdexcept>

namespace KR::tool {

namespace {

class OxvImages : public RecordedImages {
public:
    explicit OxvImages(const std::string& path) : file_(path) {
        file_.requireFrames();
        count_ = std::min(file_.countCompleteFrames(), file_.countExpectedFrames());
        if (count_ == 0) {
            throw std::runtime_error(path + ": there is no image in it");
        }
        streams_.resize(file_.getStreams().size());
        std::iota(streams_.begin(), streams_.end(), 0);
        const std::vector<int> numbers = chooseCameras(file_, 0, streams_);
        std::ranges::sort(streams_, {}, [&](std::size_t stream) { return numbers[stream]; });
        for (const std::size_t stream : streams_) {
            cameras_.push_back({numbers[stream], "stream " + std::to_string(stream), count_});
        }
    }
    std::unique_ptr<ImageReader> read(std::size_t index) const override {
        return std::make_unique<Reader>(*this, streams_.at(index));
    }

private:
    class Reader : public ImageReader {
    public:
        Reader(const OxvImages& recording, std::size_t stream) : recording_(recording), stream_(stream) {}
        std::optional<KRImage> next() override {
            if (frame_ == recording_.count_) {
                return std::nullopt;
            }
            KRImage image = recording_.file_.makeImage(stream_);
            recording_.file_.readImage(image, frame_++, stream_);
            return image;
        }
        std::vector<std::string> getLosses() const override {
            const std::uint64_t missing = recording_.file_.countExpectedFrames() - recording_.count_;
            if (missing == 0) {
                return {};
            }
            return {std::to_string(missing) + (missing == 1 ? " frame is" : " frames are") +
                    " missing or cut at its end"};
        }

    private:
        const OxvImages& recording_;
        const std::size_t stream_;
        std::uint64_t frame_ = 0;
    };

    const KROxvFile file_;
    std::uint64_t count_ = 0;
    std::vector<std::size_t> streams_; // in the order of the cameras
};

class McapImageReader : public ImageReader {
public:
    McapImageReader(const std::string& path, std::uint16_t channel, const std::string& topic)
        : topic_(topic), reader_(path) {
        std::string properties;
        if (const std::optional<int> camera = findCameraOfImageTopic(topic)) {
            properties = getImagePropertiesTopic(*camera);
        }
        KRMcapSelection selection;
        selection.isWanted = [channel, properties](const KRMcapChannel& candidate) {
            return candidate.id == channel || candidate.topic == properties;
        };
        reader_.select(selection);
    }
    std::optional<KRImage> next() override {
        for (KRMcapMessage message; reader_.next(message);) {
            KRImage image(1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f); // without a buffer
            try {
                if (images_.take(message, image)) {
                    return image;
                }
            } catch (const KRCdrError& error) {
                if (refused_++ == 0) {
                    refusal_ = error.what();
                }
            }
        }
        return std::nullopt;
    }
    std::vector<std::string> getLosses() const override {
        std::vector<std::string> losses = reader_.getDamage().texts;
        if (refused_ > 0) {
            losses.push_back(std::to_string(refused_) + " images of " + topic_ +
                             " are left out; the first one: " + refusal_);
        }
        return losses;
    }

private:
    const std::string topic_;
    KRMcapReader reader_;
    KRMcapImages images_;
    std::uint64_t refused_ = 0; // images that are not supported
    std::string refusal_;       // why, of the first one
};

class McapRecordedImages : public RecordedImages {
public:
    explicit McapRecordedImages(const std::string& path) : path_(path) {
        std::vector<Topic> topics = findTopics();
        if (topics.empty()) {
            throw std::runtime_error(path + ": there is no topic with images in it");
        }
        std::set<int> taken;
        for (Topic& topic : topics) {
            const std::optional<int> camera = findCameraOfImageTopic(topic.name);
            if (camera && taken.insert(*camera).second) {
                topic.camera = *camera;
            }
        }
        for (Topic& topic : topics) {
            for (int number = 0; topic.camera < 0; ++number) {
                topic.camera = taken.insert(number).second ? number : -1;
            }
        }
        std::ranges::sort(topics, {}, &Topic::camera);
        for (const Topic& topic : topics) {
            cameras_.push_back({topic.camera, topic.name, topic.images});
            channels_.push_back(topic.channel);
        }
    }
    std::unique_ptr<ImageReader> read(std::size_t index) const override {
        return std::make_unique<McapImageReader>(path_, channels_.at(index), cameras_[index].text);
    }

private:
    struct Topic {
        std::uint16_t channel;
        std::string name;
        std::uint64_t images;
        int camera = -1;
    };

    // By name. A file without an index has to be read for it.
    std::vector<Topic> findTopics() const {
        std::vector<Topic> topics;
        const KRMcapReader reader(path_);
        if (!reader.isIndexed() || !reader.getStatistics()) {
            Progress progress(0);
            for (const McapImages& images : readMcap(path_, progress).images) {
                topics.push_back({images.channel, images.topic, images.timeStamps.size() + images.refused});
            }
        } else {
            for (const auto& [id, channel] : reader.getChannels()) {
                const auto schema = reader.getSchemas().find(channel.schemaId);
                const auto count = reader.getStatistics()->messagesPerChannel.find(id);
                const bool isEmpty =
                    count == reader.getStatistics()->messagesPerChannel.end() || count->second == 0;
                if (!isEmpty && schema != reader.getSchemas().end() &&
                    KRMcapImages::isImageChannel(channel, &schema->second)) {
                    topics.push_back({id, channel.topic, count->second});
                }
            }
        }
        std::ranges::sort(topics, {}, &Topic::name);
        return topics;
    }

    const std::string path_;
    std::vector<std::uint16_t> channels_; // of the cameras
};

} // namespace

std::unique_ptr<RecordedImages> openRecordedImages(const std::string& path) {
    if (isMcap(path)) {
        return std::make_unique<McapRecordedImages>(path);
    }
    try {
        return std::make_unique<OxvImages>(path);
    } catch (const KRNotOxvError&) {
        throw std::runtime_error(path + ": it is neither an oxv nor an mcap file");
    }
}

} // namespace KR::tool
