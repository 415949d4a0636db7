// The library's side of test/peers.mjs.
//   krinterop_peer write FOLDER   writes files for the others to read
//   krinterop_peer read FILE      prints what is in a file as JSON

#include "krinterop/krjson.hpp"
#include "krinterop/krmcaptopics.hpp"

#include <cstdio>
#include <exception>

namespace {

using Json = nlohmann::ordered_json;

constexpr int kFrames = 3;

// peers.mjs computes the same pixels.
KR::KRImage makeImage(int colorSpace, int frame) {
    constexpr int kWidth = 160, kHeight = 120;
    KR::KRImage image(kWidth, kHeight, colorSpace, false, 0.5f, 0.25f, -0.5f, -0.25f);
    for (int i = 0; i < kWidth * kHeight * image.nbLayers; ++i) {
        image.data[i] = static_cast<unsigned char>(i * 7 + (i >> 8) + colorSpace + frame);
    }
    image.timeStamp = 1500000000000000 + frame * 33333;
    return image;
}

void writeFile(const std::string& path, KR::KRMcapCompression compression, std::size_t chunkSize) {
    KR::KRMcapWriterOptions options;
    options.compression = compression;
    options.chunkSize = chunkSize;
    KR::KRMcapWriter writer(path, options);
    KR::KRMcapRecording recording(writer);
    for (int frame = 0; frame < kFrames; ++frame) {
        int camera = 0;
        for (const int colorSpace : {0, 9, 11, 13, 18}) {
            recording.writeImage(camera++, makeImage(colorSpace, frame));
        }
        const auto time = KR::toNanoseconds(1500000000000000 + frame);
        recording.writeMemory("Test/Share", KR::KRValue::array(frame, 0.1f, "text"), time);
        recording.writeEvent("Test/Raised", KR::KRValue(frame), time);
    }
    writer.writeAttachment({11, 12, "notes.txt", "text/plain", {'h', 'e', 'l', 'l', 'o'}});
    writer.writeMetadata({"about", {{"robot", "r2"}}});
    writer.close();
}

std::string toBase64(KR::KRBytes bytes) {
    return KR::encodeBase64(KR::KRBinary::copyOf(bytes.data(), bytes.size()));
}

KR::KRBytes toBytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

void printFile(const std::string& path) {
    KR::KRMcapReader reader(path);
    Json file;
    file["messages"] = Json::array();
    for (KR::KRMcapMessage message; reader.next(message);) {
        Json schema;
        if (message.schema != nullptr) {
            schema = {{"name", message.schema->name},
                      {"encoding", message.schema->encoding},
                      {"text", toBase64(toBytes(message.schema->text))}};
        }
        file["messages"].push_back({{"topic", message.channel->topic},
                                    {"encoding", message.channel->messageEncoding},
                                    {"metadata", message.channel->metadata},
                                    {"schema", schema},
                                    {"sequence", message.sequence},
                                    {"logTime", std::to_string(message.logTime)},
                                    {"publishTime", std::to_string(message.publishTime)},
                                    {"data", toBase64(message.data)}});
    }
    for (const KR::KRMcapAttachmentIndex& index : reader.getAttachments()) {
        const KR::KRMcapAttachment attachment = reader.readAttachment(index);
        file["attachments"].push_back({{"name", attachment.name},
                                       {"mediaType", attachment.mediaType},
                                       {"data", toBase64(attachment.data)}});
    }
    for (const KR::KRMcapMetadataIndex& index : reader.getMetadata()) {
        const KR::KRMcapMetadata metadata = reader.readMetadata(index);
        file["metadata"].push_back({{"name", metadata.name}, {"values", metadata.values}});
    }
    file["profile"] = reader.getProfile();
    file["isIndexed"] = reader.isIndexed();
    file["chunks"] = reader.getChunks().size();
    file["damage"] = reader.getDamage().texts;
    file["isUndamaged"] = reader.getDamage().isNone();
    std::printf("%s\n", file.dump().c_str());
}

} // namespace

int main(int argc, char** argv) {
    const std::string what = argc == 3 ? argv[1] : "";
    try {
        if (what == "write") {
            const std::string folder = argv[2];
            writeFile(folder + "/none.mcap", KR::KRMcapCompression::None, std::size_t{1} << 20);
            writeFile(folder + "/small.mcap", KR::KRMcapCompression::None, 1);
            writeFile(folder + "/lz4.mcap", KR::KRMcapCompression::Lz4, std::size_t{100'000});
            writeFile(folder + "/zstd.mcap", KR::KRMcapCompression::Zstd, std::size_t{1} << 20);
            writeFile(folder + "/loose.mcap", KR::KRMcapCompression::None, 0);
        } else if (what == "read") {
            printFile(argv[2]);
        } else {
            std::fprintf(stderr, "krinterop_peer write FOLDER | read FILE\n");
            return 2;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "krinterop_peer: %s\n", error.what());
        return 1;
    }
    return 0;
}
