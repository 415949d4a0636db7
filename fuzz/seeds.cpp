// Writes the initial corpora, FOLDER/oxi, FOLDER/oxv and FOLDER/mcap: files made by the library, and truncated ones.

#include <krvision/krimage.hpp>
#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>

#ifdef KR_WITH_INTEROP
#include <krinterop/krmcaptopics.hpp>
#endif

#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using KR::KRImage;
using KR::KRVideo;
using KR::streamHeader;

void writeCut(const fs::path& file, std::uintmax_t size) {
    const std::string name = file.stem().string() + "-" + std::to_string(size) + file.extension().string();
    const fs::path cut = file.parent_path() / name;
    fs::copy_file(file, cut, fs::copy_options::overwrite_existing);
    fs::resize_file(cut, size);
}

// The first byte of a file is the version; the missing angles of version 0 do not matter to a parser.
void writeVersion0(const fs::path& file) {
    const fs::path old = file.parent_path() / (file.stem().string() + "-0" + file.extension().string());
    fs::copy_file(file, old, fs::copy_options::overwrite_existing);
    std::fstream(old, std::ios::in | std::ios::out | std::ios::binary).put('0');
}

void writeImages(const fs::path& folder) {
    fs::create_directories(folder);
    for (const int colorSpace : {KR::kLumaColorSpace, KR::kYUV422ColorSpace, 11, 19}) {
        for (const int size : {0, 1, 2, 16}) {
            KRImage image(size, size, colorSpace, false, 0.5f, 0.25f, -0.5f, -0.25f);
            image.timeStamp = 1500000000123456;
            const fs::path file = folder / (std::to_string(colorSpace) + "-" + std::to_string(size) + ".oxi");
            if (!image.writeFile(file.c_str())) {
                throw std::runtime_error(file.string() + " cannot be written");
            }
            writeCut(file, fs::file_size(file) / 2);
            writeVersion0(file);
        }
    }
}

void writeRecordings(const fs::path& folder) {
    fs::create_directories(folder);
    // Depths below 8 make frames small, so that the fuzzer gets through many.
    const std::vector<std::vector<streamHeader>> kinds = {
        {{160, 120, 0, 8}},  {{160, 120, 9, 1}, {160, 120, 0, 1}},
        {{320, 240, 0, 1}},  {{160, 120, 0, 1}, {160, 120, 13, 1}, {160, 120, 16, 1}},
        {{160, 120, 0, 16}},
    };
    for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
        const fs::path file = folder / std::to_string(kind);
        KRVideo video;
        video.recordVideo(file.string(), kind == 1 ? 25 : 0, kinds[kind]);
        for (int frame = 0; frame < 2; ++frame) {
            for (const streamHeader& stream : kinds[kind]) {
                const int layers = KR::getNumLayersInColorSpace(static_cast<int>(stream.colorSpace));
                std::vector<char> image(stream.width * stream.height * static_cast<unsigned>(layers) *
                                        stream.depth / 8);
                video.write(image.data(), static_cast<int>(image.size()), 1500000000123456 + frame * 33333, 0,
                            0.5f, 0.25f, -0.5f, -0.25f);
            }
        }
        if (kind != 2) { // kept like a recording that was never closed
            video.closeVideo();
        }
        const fs::path written = file.string() + ".oxv";
        writeCut(written, fs::file_size(written) - 1000);
        writeCut(written, 100); // mostly headers, the part most worth mutating
        writeVersion0(written);
    }
}

#ifdef KR_WITH_INTEROP
// Without checksums, so that changed bytes get through.
void writeMcapFiles(const fs::path& folder) {
    fs::create_directories(folder);
    for (const auto compression :
         {KR::KRMcapCompression::None, KR::KRMcapCompression::Lz4, KR::KRMcapCompression::Zstd}) {
        for (const std::size_t chunkSize : {std::size_t{0}, std::size_t{500}}) {
            const fs::path file = folder / (std::string("m") + KR::getCompressionName(compression) +
                                            std::to_string(chunkSize) + ".mcap");
            KR::KRMcapWriterOptions options;
            options.compression = compression;
            options.chunkSize = chunkSize;
            options.hasChunkCrcs = false;
            KR::KRMcapWriter writer(file.string(), options);
            KR::KRMcapRecording recording(writer);
            for (int i = 0; i < 3; ++i) {
                KRImage image(8, 4, i == 2 ? 10 : KR::kYUV422ColorSpace, false, 0.5f, 0.25f, -0.5f, -0.25f);
                image.timeStamp = 1500000000123456 - i;
                recording.writeImage(i, image);
                recording.writeMemory("key", KR::KRValue(i), static_cast<std::uint64_t>(i));
            }
            writer.writeAttachment({1, 2, "name", "type", {1, 2, 3}});
            writer.writeMetadata({"name", {{"key", "value"}}});
            writer.close();
            std::fstream summary(file, std::ios::in | std::ios::out | std::ios::binary);
            summary.seekp(static_cast<std::streamoff>(fs::file_size(file)) - 12);
            summary.write(std::array<char, 4>{}.data(), 4);
            summary.close();
            writeCut(file, fs::file_size(file) / 2);
        }
    }
}
#endif

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "fuzz_seeds FOLDER\n");
        return 2;
    }
    try {
        writeImages(fs::path(argv[1]) / "oxi");
        writeRecordings(fs::path(argv[1]) / "oxv");
#ifdef KR_WITH_INTEROP
        writeMcapFiles(fs::path(argv[1]) / "mcap");
#endif
    } catch (const std::exception& error) {
        std::fprintf(stderr, "fuzz_seeds: %s\n", error.what());
        return 1;
    }
    return 0;
}
