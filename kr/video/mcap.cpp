#include "video/mcap.hpp"

#include "tool/outputfile.hpp"
#include "video/streamcameras.hpp"

#include <krinterop/krmcaptopics.hpp>
#include <krvision/krvideo.hpp>

#include <algorithm>
#include <charconv>
#include <map>
#include <stdexcept>

namespace KR::tool {

namespace {

constexpr const char* kStreamKey = "oxv_stream"; // metadata of a channel: the stream that it was

KRMcapWriterOptions makeOptions(const std::string& compression) {
    KRMcapWriterOptions options;
    if (compression == "lz4") {
        options.compression = KRMcapCompression::Lz4;
    } else if (compression == "zstd") {
        options.compression = KRMcapCompression::Zstd;
    } else if (compression != "none") {
        throw std::invalid_argument("compression " + compression + " is not one of " + kMcapCompressions);
    }
    return options;
}

/// An MCAP file with images, of cameras or of anything.
class Writer {
public:
    Writer(const std::string& path, const std::string& compression)
        : writer_(createMcapFile(path, getFinalName(path)), makeOptions(compression)), recording_(writer_) {}
    KRMcapRecording& getRecording() { return recording_; }
    void close() { writer_.close(); }

private:
    KRMcapWriter writer_;
    KRMcapRecording recording_;
};

class McapSink : public FrameSink {
public:
    McapSink(const std::string& path, const std::string& compression) : writer_(path, compression) {}
    void write(const KRImage& image, std::uint64_t /*number*/, std::int64_t /*time_usec*/) override {
        writer_.getRecording().writeImage(0, image);
    }
    void finish() override { writer_.close(); }

private:
    Writer writer_;
};

std::size_t findStream(const KRMcapChannel& channel) {
    std::size_t stream = SIZE_MAX; // behind those that say
    const auto found = channel.metadata.find(kStreamKey);
    if (found != channel.metadata.end()) {
        const std::string& text = found->second;
        std::from_chars(text.data(), text.data() + text.size(), stream);
    }
    return stream;
}

KRImage makeEmptyImage() {
    return {1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f};
}

void takeImage(McapImages& images, const KRImage& image) {
    const auto width = static_cast<std::uint32_t>(image.width);
    const auto height = static_cast<std::uint32_t>(image.height);
    if (images.colorSpace == -1) {
        images.width = width;
        images.height = height;
        images.colorSpace = image.colorSpace;
    }
    if (images.width == width && images.height == height && images.colorSpace == image.colorSpace) {
        images.timeStamps.push_back(image.timeStamp);
    } else if (images.refused++ == 0) {
        images.refusal = "its size or colour space differs from that of the first one";
    }
}

/// The images of one channel, with their properties.
class ChannelReader {
public:
    ChannelReader(const std::string& path, const McapImages& images) : expected_(images), reader_(path) {
        KRMcapSelection selection;
        std::string properties;
        if (const std::optional<int> camera = findCameraOfImageTopic(images.topic)) {
            properties = getImagePropertiesTopic(*camera);
        }
        selection.isWanted = [id = images.channel, properties](const KRMcapChannel& channel) {
            return channel.id == id || channel.topic == properties;
        };
        reader_.select(selection);
    }
    /// The next image of the channel's geometry. \return null: there are no more
    const KRImage* next() {
        for (KRMcapMessage message; reader_.next(message);) {
            try {
                if (images_.take(message, image_) && isExpected()) {
                    return &image_;
                }
            } catch (const KRCdrError&) { // NOLINT(bugprone-empty-catch): counted by readMcap()
            }
        }
        return nullptr;
    }

private:
    bool isExpected() const {
        return image_.width == static_cast<int>(expected_.width) &&
               image_.height == static_cast<int>(expected_.height) &&
               image_.colorSpace == expected_.colorSpace;
    }

    const McapImages expected_;
    KRMcapReader reader_;
    KRMcapImages images_;
    KRImage image_ = makeEmptyImage();
};

} // namespace

bool isMcap(const std::string& path) {
    return isMcapFile(path);
}

std::unique_ptr<FrameSink> makeMcapSink(const std::string& path, const std::string& compression) {
    return std::make_unique<McapSink>(path, compression);
}

void copyToMcap(const KROxvFile& recording, std::uint64_t first, std::uint64_t count,
                std::optional<std::size_t> stream, const std::string& path, const std::string& compression,
                Progress& progress) {
    std::vector<std::size_t> streams;
    for (std::size_t i = 0; i < recording.getStreams().size(); ++i) {
        if (!stream || *stream == i) {
            streams.push_back(i);
        }
    }
    const std::vector<int> cameras = chooseCameras(recording, first, streams);
    Writer writer(path, compression);
    std::vector<KRImage> images;
    for (std::size_t i = 0; i < streams.size(); ++i) {
        images.push_back(recording.makeImage(streams[i]));
        writer.getRecording().setCameraMetadata(cameras[i], {{kStreamKey, std::to_string(i)}});
    }
    for (std::uint64_t frame = first; frame < first + count; ++frame) {
        for (std::size_t i = 0; i < streams.size(); ++i) {
            recording.readImage(images[i], frame, streams[i]);
            writer.getRecording().writeImage(cameras[i], images[i]);
        }
        progress.advance();
    }
    writer.close();
}

McapContent readMcap(const std::string& path, Progress& progress) {
    KRMcapReader reader(path);
    McapContent content;
    std::map<std::uint16_t, McapTopic> topics;
    std::map<std::uint16_t, McapImages> images;
    KRMcapImages finder;
    KRImage image = makeEmptyImage();
    for (KRMcapMessage message; reader.next(message);) {
        const KRMcapChannel& channel = *message.channel;
        McapTopic& topic = topics[channel.id];
        if (topic.messages++ == 0) {
            topic.topic = channel.topic;
            topic.schema = message.schema != nullptr ? message.schema->name : "";
            topic.encoding = channel.messageEncoding;
        }
        content.startTime =
            content.messages == 0 ? message.logTime : std::min(content.startTime, message.logTime);
        content.endTime = std::max(content.endTime, message.logTime);
        ++content.messages;
        const bool isImage = KRMcapImages::isImageChannel(channel, message.schema);
        try {
            if (finder.take(message, image)) {
                takeImage(images.try_emplace(channel.id, McapImages{channel.id, channel.topic}).first->second,
                          image);
                progress.advance();
            }
        } catch (const KRCdrError& error) {
            if (isImage) {
                McapImages& refused =
                    images.try_emplace(channel.id, McapImages{channel.id, channel.topic}).first->second;
                if (refused.refused++ == 0) {
                    refused.refusal = error.what();
                }
            }
        }
    }
    content.isIndexed = reader.isIndexed();
    content.isClosed = reader.getDamage().isClosed;
    content.fileSize = reader.getFileSize();
    content.chunks = reader.getChunks().size();
    content.attachments = reader.getAttachments().size();
    content.damage = reader.getDamage().texts;
    for (auto& [id, topic] : topics) {
        content.topics.push_back(std::move(topic));
    }
    for (auto& [id, found] : images) {
        content.images.push_back(std::move(found));
    }
    std::ranges::sort(content.topics, {}, &McapTopic::topic);
    std::ranges::sort(content.images, {}, [&](const McapImages& found) {
        return std::pair(findStream(reader.getChannels().at(found.channel)), found.topic);
    });
    return content;
}

const McapImages& chooseMcapImages(const std::string& path, const McapContent& content, std::size_t stream,
                                   std::uint64_t frame) {
    if (stream >= content.images.size()) {
        throw std::runtime_error(path + ": there is no stream " + std::to_string(stream) + "; there are " +
                                 std::to_string(content.images.size()) + " topics with images");
    }
    const McapImages& images = content.images[stream];
    if (frame >= images.timeStamps.size()) {
        throw std::runtime_error(path + ": there is no frame " + std::to_string(frame) + " of " +
                                 images.topic + "; there are " + std::to_string(images.timeStamps.size()));
    }
    return images;
}

std::function<const KRImage*()> openMcapImages(const std::string& path, const McapImages& images) {
    return [reader = std::make_shared<ChannelReader>(path, images)] { return reader->next(); };
}

std::uint64_t copyFromMcap(const std::string& in, const McapContent& content, std::uint64_t first,
                           std::uint64_t count, std::optional<std::size_t> stream, const std::string& path,
                           const std::string& name, Progress& progress) {
    std::vector<streamHeader> headers;
    std::vector<std::unique_ptr<ChannelReader>> readers; // each holds one chunk
    for (std::size_t i = 0; i < content.images.size(); ++i) {
        const McapImages& images = content.images[i];
        if (stream ? *stream == i : !images.timeStamps.empty()) {
            headers.push_back(
                {images.width, images.height, static_cast<std::uint32_t>(std::max(images.colorSpace, 0)), 8});
            readers.push_back(std::make_unique<ChannelReader>(in, images));
        }
    }
    KROxvWriter writer(path, headers, name);
    std::vector<const KRImage*> images(readers.size());
    for (std::uint64_t frame = 0; frame < first + count && writer.hasRoom(); ++frame) {
        for (std::size_t i = 0; i < readers.size(); ++i) {
            images[i] = readers[i]->next();
            if (images[i] == nullptr) {
                throw std::runtime_error(in + ": it changes while it is read");
            }
        }
        if (frame >= first) {
            writer.write(images);
            progress.advance();
        }
    }
    writer.close();
    return writer.countFrames();
}

} // namespace KR::tool
