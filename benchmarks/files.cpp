// Image files and recordings compared with plain fread and fwrite of the same bytes, and with GStreamer's
// filesink. The files are in memory, so that no disk matters; with TMPDIR set, in that folder.

#include <krvision/krimage.hpp>
#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <benchmark/benchmark.h>

#ifdef KR_BENCHMARK_GSTREAMER
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#endif

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace {

using KR::KRImage;
using KR::KRVideo;

constexpr int kFrames = 32; // of a recording

struct Geometry {
    int width;
    int height;
    int colorSpace;
    const char* label;

    std::size_t getBytes() const {
        return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) *
               static_cast<std::size_t>(KR::getNumLayersInColorSpace(colorSpace));
    }
    KRImage makeImage() const {
        KRImage image(width, height, colorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
        for (std::size_t i = 0; i < getBytes(); ++i) {
            image.data[static_cast<std::ptrdiff_t>(i)] = static_cast<unsigned char>(i * i >> 7);
        }
        return image;
    }
    KR::streamHeader makeStream(int colorSpaceOfStream) const {
        return {static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height),
                static_cast<std::uint32_t>(colorSpaceOfStream), 8};
    }
};
constexpr Geometry kGeometries[] = {{640, 480, KR::kYUV422ColorSpace, "640x480 YUV422"},
                                    {1280, 960, KR::kBgrColorSpace, "1280x960 BGR"}};
constexpr Geometry kBgrGeometries[] = {{640, 480, KR::kBgrColorSpace, "640x480 BGR"},
                                       {1280, 960, KR::kBgrColorSpace, "1280x960 BGR"}};

std::filesystem::path getFolder() {
    const std::filesystem::path memory = "/dev/shm";
    return std::getenv("TMPDIR") == nullptr && std::filesystem::is_directory(memory)
               ? memory
               : std::filesystem::temp_directory_path();
}

/// The name of a file that is removed with the object.
class Place {
public:
    explicit Place(const char* extension)
        : stem_((getFolder() / ("krvision-benchmark-" + std::to_string(::getpid()))).string()),
          path_(stem_ + extension) {}
    ~Place() { std::filesystem::remove(path_); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    const std::string& getStem() const { return stem_; }
    const char* getPath() const { return path_.c_str(); }

private:
    const std::string stem_;
    const std::string path_;
};

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

File open(const Place& place, const char* mode) {
    File file(std::fopen(place.getPath(), mode));
    if (!file) {
        throw std::runtime_error(std::string("cannot open ") + place.getPath());
    }
    return file;
}

void writeOrThrow(const void* bytes, std::size_t size, std::FILE* file) {
    if (std::fwrite(bytes, 1, size, file) != size) {
        throw std::runtime_error("cannot write");
    }
}

// The size of the headers of a recording.
void writeHeaders(std::FILE* file) {
    const std::array<char, 32> headers = {};
    writeOrThrow(headers.data(), headers.size(), file);
}

// closeVideo() prints the number of frames; suppress that.
class Silence {
public:
    Silence() : former_(std::cout.rdbuf(nullptr)) {}
    ~Silence() {
        std::cout.rdbuf(former_);
        std::cout.clear();
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    std::streambuf* const former_;
};

const Geometry& geometryOf(const benchmark::State& state, const Geometry* geometries) {
    return geometries[state.range(0)];
}

void finish(benchmark::State& state, const Geometry& geometry, int frames = 1) {
    state.SetLabel(geometry.label);
    state.SetBytesProcessed(state.iterations() * frames * static_cast<std::int64_t>(geometry.getBytes()));
}

char* asChars(KRImage& image) {
    return reinterpret_cast<char*>(image.data.get());
}

void record(const Geometry& geometry, KRImage& image, const Place& place) {
    const Silence silence;
    KRVideo video;
    video.recordVideo(place.getStem(), 0, {geometry.makeStream(geometry.colorSpace)});
    for (int frame = 0; frame < kFrames; ++frame) {
        video.write(asChars(image), static_cast<int>(geometry.getBytes()), frame, 0, 0.0f, 0.0f, 0.0f, 0.0f);
    }
    video.closeVideo();
}

// ---- reading a recording

void readFrames(benchmark::State& state) {
    const Geometry& geometry = kGeometries[0]; // the largest that readers open
    const Place place(".oxv");
    KRImage image = geometry.makeImage();
    record(geometry, image, place);
    KRVideo video;
    video.readVideo(place.getPath());
    for ([[maybe_unused]] auto _ : state) {
        for (unsigned frame = 0; frame < kFrames; ++frame) {
            video.getFrame(image, frame, 0, true);
        }
    }
    finish(state, geometry, kFrames);
}
void readFramesPlainly(benchmark::State& state) {
    const Geometry& geometry = kGeometries[0];
    const Place place(".oxv");
    KRImage image = geometry.makeImage();
    record(geometry, image, place);
    const File file = open(place, "rb");
    for ([[maybe_unused]] auto _ : state) {
        std::fseek(file.get(), 32, SEEK_SET);
        for (int frame = 0; frame < kFrames; ++frame) {
            if (std::fread(image.data.get(), 1, geometry.getBytes(), file.get()) != geometry.getBytes()) {
                throw std::runtime_error("cannot read");
            }
        }
    }
    finish(state, geometry, kFrames);
}
BENCHMARK(readFrames)->Name("read 32 frames/krvision")->Arg(0)->UseRealTime();
BENCHMARK(readFramesPlainly)->Name("read 32 frames/fread")->Arg(0)->UseRealTime();

// ---- recording

void recordFrames(benchmark::State& state) {
    const Geometry& geometry = geometryOf(state, kGeometries);
    const Place place(".oxv");
    KRImage image = geometry.makeImage();
    for ([[maybe_unused]] auto _ : state) {
        record(geometry, image, place);
    }
    finish(state, geometry, kFrames);
}
void recordFramesPlainly(benchmark::State& state) {
    const Geometry& geometry = geometryOf(state, kGeometries);
    const Place place(".oxv");
    KRImage image = geometry.makeImage();
    for ([[maybe_unused]] auto _ : state) {
        const File file = open(place, "wb");
        writeHeaders(file.get());
        for (int frame = 0; frame < kFrames; ++frame) {
            writeOrThrow(image.data.get(), geometry.getBytes(), file.get());
        }
    }
    finish(state, geometry, kFrames);
}
BENCHMARK(recordFrames)->Name("record 32 frames/krvision")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(recordFramesPlainly)->Name("record 32 frames/fwrite")->Arg(0)->Arg(1)->UseRealTime();

#ifdef KR_BENCHMARK_GSTREAMER
void recordFramesByGStreamer(benchmark::State& state) {
    gst_init(nullptr, nullptr);
    const Geometry& geometry = geometryOf(state, kGeometries);
    const Place place(".oxv");
    KRImage image = geometry.makeImage();
    for ([[maybe_unused]] auto _ : state) {
        GstElement* pipeline =
            gst_parse_launch("appsrc name=source block=true max-bytes=8000000 ! filesink name=sink", nullptr);
        GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline), "source");
        GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
        g_object_set(sink, "location", place.getPath(), nullptr);
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        for (int frame = 0; frame < kFrames; ++frame) {
            gst_app_src_push_buffer(GST_APP_SRC(source),
                                    gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, image.data.get(),
                                                                geometry.getBytes(), 0, geometry.getBytes(),
                                                                nullptr, nullptr));
        }
        gst_app_src_end_of_stream(GST_APP_SRC(source));
        GstBus* bus = gst_element_get_bus(pipeline);
        gst_message_unref(gst_bus_timed_pop_filtered(
            bus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(bus);
        gst_object_unref(sink);
        gst_object_unref(source);
        gst_object_unref(pipeline);
    }
    finish(state, geometry, kFrames);
}
BENCHMARK(recordFramesByGStreamer)->Name("record 32 frames/filesink")->Arg(0)->Arg(1)->UseRealTime();
#endif

void recordBgr(benchmark::State& state) {
    const Geometry& geometry = geometryOf(state, kBgrGeometries);
    const Place place(".oxv");
    const Silence silence;
    KRImage image = geometry.makeImage();
    for ([[maybe_unused]] auto _ : state) {
        KRVideo video;
        video.recordVideo(place.getStem(), 0, {geometry.makeStream(KR::kYUV422ColorSpace)});
        for (int frame = 0; frame < kFrames; ++frame) {
            video.write(geometry.height, geometry.width, asChars(image), frame, 0, 0.0f, 0.0f, 0.0f, 0.0f);
        }
        video.closeVideo();
    }
    finish(state, geometry, kFrames);
}
void recordBgrPlainly(benchmark::State& state) {
    const Geometry& geometry = geometryOf(state, kBgrGeometries);
    const Place place(".oxv");
    KRImage image = geometry.makeImage();
    KRImage yuv422(geometry.width, geometry.height, KR::kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    const std::size_t size = geometry.getBytes() / 3 * 2;
    for ([[maybe_unused]] auto _ : state) {
        const File file = open(place, "wb");
        writeHeaders(file.get());
        for (int frame = 0; frame < kFrames; ++frame) {
            yuv422.computeYUV422imageFromBGR(geometry.height, geometry.width, asChars(image));
            writeOrThrow(yuv422.data.get(), size, file.get());
        }
    }
    finish(state, geometry, kFrames);
}
BENCHMARK(recordBgr)->Name("record 32 frames of BGR/krvision")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(recordBgrPlainly)->Name("record 32 frames of BGR/convert, fwrite")->Arg(0)->Arg(1)->UseRealTime();

// ---- image files

void writeImage(benchmark::State& state) {
    const Geometry& geometry = geometryOf(state, kGeometries);
    const Place place(".oxi");
    const KRImage image = geometry.makeImage();
    for ([[maybe_unused]] auto _ : state) {
        image.writeFile(place.getPath());
    }
    finish(state, geometry);
}
void writePlainly(benchmark::State& state) {
    const Geometry& geometry = geometryOf(state, kGeometries);
    const Place place(".oxi");
    const KRImage image = geometry.makeImage();
    for ([[maybe_unused]] auto _ : state) {
        const File file = open(place, "wb");
        writeOrThrow(image.data.get(), geometry.getBytes(), file.get());
    }
    finish(state, geometry);
}
BENCHMARK(writeImage)->Name("writeFile/krvision")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(writePlainly)->Name("writeFile/fwrite")->Arg(0)->Arg(1)->UseRealTime();

void readImage(benchmark::State& state) {
    const Geometry& geometry = geometryOf(state, kGeometries);
    const Place place(".oxi");
    KRImage image = geometry.makeImage();
    image.writeFile(place.getPath());
    for ([[maybe_unused]] auto _ : state) {
        image.readFile(place.getPath());
    }
    finish(state, geometry);
}
void readPlainly(benchmark::State& state) {
    const Geometry& geometry = geometryOf(state, kGeometries);
    const Place place(".oxi");
    KRImage image = geometry.makeImage();
    image.writeFile(place.getPath());
    for ([[maybe_unused]] auto _ : state) {
        const File file = open(place, "rb");
        if (std::fread(image.data.get(), 1, geometry.getBytes(), file.get()) != geometry.getBytes()) {
            throw std::runtime_error("cannot read");
        }
    }
    finish(state, geometry);
}
BENCHMARK(readImage)->Name("readFile/krvision")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(readPlainly)->Name("readFile/fread")->Arg(0)->Arg(1)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
