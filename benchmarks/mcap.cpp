// MCAP files compared with plain fwrite and fread of the same bytes, and with the lz4 library on them. The
// files are in memory, so that no disk matters; with TMPDIR set, in that folder.

#include <krinterop/krimagemessage.hpp>
#include <krinterop/krmcaptopics.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <benchmark/benchmark.h>

#include <lz4frame.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace {

using KR::KRBytes;
using KR::KRImage;
using KR::KRMcapCompression;

constexpr int kFrames = 32;

struct Geometry {
    int width;
    int height;
    const char* label;
};
constexpr Geometry kGeometries[] = {{640, 480, "640x480 YUV422"}, {1280, 960, "1280x960 YUV422"}};

/// Smooth shapes and sensor noise, which compress like camera images.
KRImage makeImage(const Geometry& geometry) {
    KRImage image(geometry.width, geometry.height, KR::kYUV422ColorSpace, false, 0.4f, 0.3f, -0.4f, -0.3f);
    unsigned random = 1;
    for (int y = 0; y < geometry.height; ++y) {
        for (int x = 0; x < geometry.width; ++x) {
            random = random * 1664525u + 1013904223u;
            unsigned char* pixel = image.data.get() + 2 * (y * geometry.width + x);
            pixel[0] = static_cast<unsigned char>(
                128 + static_cast<int>(80 * std::sin(x * 0.02) * std::cos(y * 0.03)) +
                static_cast<int>(random >> 30));
            pixel[1] = static_cast<unsigned char>(120 + x / 64);
        }
    }
    return image;
}

/// The name of a file that is removed with the object.
class Place {
public:
    Place()
        : path_((std::getenv("TMPDIR") == nullptr && std::filesystem::is_directory("/dev/shm")
                     ? std::filesystem::path("/dev/shm")
                     : std::filesystem::temp_directory_path()) /
                ("krvision-benchmark-" + std::to_string(::getpid()) + ".mcap")) {}
    ~Place() { std::filesystem::remove(path_); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    std::string get() const { return path_.string(); }

private:
    const std::filesystem::path path_;
};

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
std::unique_ptr<std::FILE, CloseFile> open(const Place& place, const char* mode) {
    std::unique_ptr<std::FILE, CloseFile> file(std::fopen(place.get().c_str(), mode));
    if (!file) {
        throw std::runtime_error("cannot open " + place.get());
    }
    return file;
}

const Geometry& geometryOf(const benchmark::State& state) {
    return kGeometries[state.range(0)];
}

void finish(benchmark::State& state) {
    const Geometry& geometry = geometryOf(state);
    state.SetLabel(geometry.label);
    state.SetBytesProcessed(state.iterations() * kFrames * geometry.width * geometry.height * 2);
}

void writeFrames(const Place& place, const KRImage& image, const KR::KRMcapWriterOptions& options) {
    KR::KRMcapWriter writer(place.get(), options);
    KR::KRMcapRecording recording(writer);
    for (int frame = 0; frame < kFrames; ++frame) {
        recording.writeImage(0, image, static_cast<std::uint64_t>(frame));
    }
    writer.close();
}

// ---- writing

void writeMcap(benchmark::State& state, KRMcapCompression compression, bool hasChunkCrcs) {
    const KRImage image = makeImage(geometryOf(state));
    const Place place;
    KR::KRMcapWriterOptions options;
    options.compression = compression;
    options.hasChunkCrcs = hasChunkCrcs;
    for ([[maybe_unused]] auto _ : state) {
        writeFrames(place, image, options);
    }
    state.counters["ratio"] = static_cast<double>(std::filesystem::file_size(place.get())) /
                              static_cast<double>(kFrames * KR::getPixels(image).size());
    finish(state);
}

void writePlainly(benchmark::State& state) {
    const KRImage image = makeImage(geometryOf(state));
    const KRBytes pixels = KR::getPixels(image);
    const Place place;
    for ([[maybe_unused]] auto _ : state) {
        const auto file = open(place, "wb");
        for (int frame = 0; frame < kFrames; ++frame) {
            if (std::fwrite(pixels.data(), 1, pixels.size(), file.get()) != pixels.size()) {
                throw std::runtime_error("cannot write");
            }
        }
    }
    finish(state);
}

// What `lz4 -1` does with a file of one frame, 32 times.
void writeLz4(benchmark::State& state) {
    const KRImage image = makeImage(geometryOf(state));
    const KRBytes pixels = KR::getPixels(image);
    const Place place;
    LZ4F_preferences_t preferences = LZ4F_INIT_PREFERENCES;
    preferences.frameInfo.blockSizeID = LZ4F_max4MB;
    preferences.frameInfo.blockMode = LZ4F_blockIndependent;
    preferences.frameInfo.contentChecksumFlag = LZ4F_contentChecksumEnabled;
    preferences.compressionLevel = 1;
    const std::size_t bound = LZ4F_compressFrameBound(pixels.size(), &preferences);
    const std::unique_ptr<char[]> compressed(new char[bound]);
    for ([[maybe_unused]] auto _ : state) {
        const auto file = open(place, "wb");
        for (int frame = 0; frame < kFrames; ++frame) {
            const std::size_t size =
                LZ4F_compressFrame(compressed.get(), bound, pixels.data(), pixels.size(), &preferences);
            if (std::fwrite(compressed.get(), 1, size, file.get()) != size) {
                throw std::runtime_error("cannot write");
            }
        }
    }
    finish(state);
}

void writeUncompressed(benchmark::State& state) {
    writeMcap(state, KRMcapCompression::None, true);
}
void writeWithoutCrcs(benchmark::State& state) {
    writeMcap(state, KRMcapCompression::None, false);
}
void writeWithLz4(benchmark::State& state) {
    writeMcap(state, KRMcapCompression::Lz4, true);
}
void writeWithZstd(benchmark::State& state) {
    writeMcap(state, KRMcapCompression::Zstd, true);
}
BENCHMARK(writeUncompressed)->Name("write 32 images to MCAP/krvision")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(writeWithoutCrcs)->Name("write 32 images to MCAP/without CRCs")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(writePlainly)->Name("write 32 images to MCAP/fwrite")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(writeWithLz4)->Name("write 32 images to MCAP with lz4/krvision")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(writeLz4)->Name("write 32 images to MCAP with lz4/lz4 -1")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(writeWithZstd)
    ->Name("write 32 images to MCAP with lz4/zstd -1 instead")
    ->Arg(0)
    ->Arg(1)
    ->UseRealTime();

// ---- reading

void readMcap(benchmark::State& state, bool isChecked, bool isCopied) {
    KRImage image = makeImage(geometryOf(state));
    const Place place;
    KR::KRMcapWriterOptions options;
    options.hasChunkCrcs = isChecked;
    writeFrames(place, image, options);
    KR::KRMcapReader reader(place.get());
    for ([[maybe_unused]] auto _ : state) {
        reader.select({});
        KR::KRMcapImages images;
        int found = 0;
        for (KR::KRMcapMessage message; reader.next(message);) {
            if (isCopied) {
                found += images.take(message, image) ? 1 : 0;
            } else if (KR::KRMcapImages::isImageChannel(*message.channel, message.schema)) {
                benchmark::DoNotOptimize(KR::decodeImageMessage(message.data).pixels.data());
                ++found;
            }
        }
        if (found != kFrames || !reader.getDamage().isNone()) {
            throw std::runtime_error("cannot read");
        }
    }
    finish(state);
}

void readPlainly(benchmark::State& state) {
    KRImage image = makeImage(geometryOf(state));
    const std::size_t size = KR::getPixels(image).size();
    const Place place;
    {
        const auto file = open(place, "wb");
        for (int frame = 0; frame < kFrames; ++frame) {
            std::fwrite(image.data.get(), 1, size, file.get());
        }
    }
    const auto file = open(place, "rb");
    for ([[maybe_unused]] auto _ : state) {
        std::rewind(file.get());
        for (int frame = 0; frame < kFrames; ++frame) {
            if (std::fread(image.data.get(), 1, size, file.get()) != size) {
                throw std::runtime_error("cannot read");
            }
        }
    }
    finish(state);
}

void readMessages(benchmark::State& state) {
    readMcap(state, true, false);
}
void readWithoutCrcs(benchmark::State& state) {
    readMcap(state, false, false);
}
void readImages(benchmark::State& state) {
    readMcap(state, true, true);
}
BENCHMARK(readMessages)->Name("read 32 images of MCAP/krvision")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(readWithoutCrcs)->Name("read 32 images of MCAP/without CRCs")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(readImages)->Name("read 32 images of MCAP/into a KRImage")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(readPlainly)->Name("read 32 images of MCAP/fread")->Arg(0)->Arg(1)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
