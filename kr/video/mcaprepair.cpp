#include "video/mcaprepair.hpp"

#include "video/mcap.hpp"
#include "video/timeline.hpp"

#include <krinterop/krmcapreader.hpp>
#include <krinterop/krmcapwriter.hpp>

#include <map>
#include <optional>

namespace KR::tool {

namespace {

// Data that is lost, not just unfinished.
bool isSomethingLost(const KRMcapDamage& damage) {
    return damage.wrongCrcs + damage.unreadableChunks + damage.badRecords + damage.unknownChannels +
               damage.cutBytes >
           0;
}

/// Copies messages, with their schemas and channels as they are needed.
class McapCopy {
public:
    McapCopy(const KRMcapReader& reader, const std::string& path, const std::string& name)
        : writer_(createMcapFile(path, name), makeOptions(reader)) {}

    void write(const KRMcapMessage& message) {
        const auto found = channels_.find(message.channel->id);
        const std::uint16_t channel = found != channels_.end() ? found->second : addChannel(message);
        writer_.write(channel, message.sequence, message.logTime, message.publishTime, message.data);
    }
    KRMcapWriter& getWriter() { return writer_; }

private:
    static KRMcapWriterOptions makeOptions(const KRMcapReader& reader) {
        KRMcapWriterOptions options;
        options.profile = reader.getProfile();
        if (!reader.getChunks().empty()) {
            const std::string& compression = reader.getChunks().front().compression;
            options.compression = compression == "lz4"    ? KRMcapCompression::Lz4
                                  : compression == "zstd" ? KRMcapCompression::Zstd
                                                          : KRMcapCompression::None;
        }
        return options;
    }
    std::uint16_t addChannel(const KRMcapMessage& message) {
        std::uint16_t schema = 0;
        if (message.schema != nullptr) {
            const auto found = schemas_.find(message.schema->id);
            schema =
                found != schemas_.end()
                    ? found->second
                    : writer_.addSchema(message.schema->name, message.schema->encoding, message.schema->text);
            schemas_.emplace(message.schema->id, schema);
        }
        const KRMcapChannel& channel = *message.channel;
        const std::uint16_t id =
            writer_.addChannel(channel.topic, channel.messageEncoding, schema, channel.metadata);
        channels_.emplace(channel.id, id);
        return id;
    }

    KRMcapWriter writer_;
    std::map<std::uint16_t, std::uint16_t> schemas_;  // identifiers there, by those here
    std::map<std::uint16_t, std::uint16_t> channels_; // the same
};

} // namespace

std::vector<std::string> diagnoseMcap(const std::string& path, Progress& progress) {
    const McapContent content = readMcap(path, progress);
    std::vector<std::string> problems = content.damage;
    if (!content.isClosed) {
        problems.emplace_back("the file was never closed: kr video recover closes it");
    }
    for (const McapImages& images : content.images) {
        if (images.refused > 0) {
            problems.push_back(std::to_string(images.refused) + " images of " + images.topic +
                               " cannot be used; the first one: " + images.refusal);
        }
        for (const Timeline::Jump& jump : makeTimeline(images.timeStamps).jumps) {
            problems.push_back("image " + std::to_string(jump.frame) + " of " + images.topic +
                               ": its time stamp is " + std::to_string(jump.length) +
                               " us before that of the previous one");
        }
    }
    return problems;
}

McapRecovery recoverMcap(const std::string& in, const std::string& out, const std::string& name,
                         Progress& progress) {
    McapRecovery recovery;
    std::optional<McapCopy> copy;
    KRMcapReader reader(in);
    for (KRMcapMessage message; reader.next(message);) {
        if (!copy) { // once the first chunk is known
            copy.emplace(reader, out, name);
        }
        copy->write(message);
        ++recovery.messages;
        progress.advance();
    }
    if (!copy) {
        copy.emplace(reader, out, name);
    }
    for (const KRMcapAttachmentIndex& index : reader.getAttachments()) {
        try {
            copy->getWriter().writeAttachment(reader.readAttachment(index));
            ++recovery.attachments;
        } catch (const KRMcapError& error) {
            recovery.losses.push_back("attachment " + index.name + ": " + error.what());
        }
    }
    for (const KRMcapMetadataIndex& index : reader.getMetadata()) {
        try {
            copy->getWriter().writeMetadata(reader.readMetadata(index));
        } catch (const KRMcapError& error) {
            recovery.losses.push_back("metadata " + index.name + ": " + error.what());
        }
    }
    copy->getWriter().close();
    if (isSomethingLost(reader.getDamage())) {
        const std::vector<std::string>& texts = reader.getDamage().texts;
        recovery.losses.insert(recovery.losses.begin(), texts.begin(), texts.end());
    }
    return recovery;
}

} // namespace KR::tool
