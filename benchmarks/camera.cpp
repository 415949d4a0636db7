// The cost of a camera: the processor time of one second of images, compared with a bare GStreamer pipeline on the
// same source; and the conversion of its images, compared with GStreamer's and with copying the bytes that
// it reads and writes.

#include "conversion/krconverter.hpp"
#include "gstreamer/krgstreamer.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krvideodeviceproxy.hpp>

#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace KR;

constexpr int framesPerSecond = 30;
constexpr int warmUpFrames = 15; // until plug-ins, buffers and code are loaded
constexpr int vga = 2;
constexpr int yuv422 = 9;
constexpr int bgr = 13;

double getProcessorTime() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void runPipeline(const std::string& description) {
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    if (error != nullptr) {
        throw std::runtime_error(error->message);
    }
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    const auto end = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    gst_message_unref(gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE, end));
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
}

/// A film of three seconds, made once.
class Film {
public:
    static const std::string& getPath() {
        static const Film film;
        return film.path_;
    }

private:
    Film() : path_((std::filesystem::temp_directory_path() / "krcamera-benchmark.avi").string()) {
        runPipeline(
            "videotestsrc num-buffers=90 pattern=smpte ! video/x-raw,width=640,height=480,framerate=30/1 ! "
            "videoconvert ! video/x-raw,format=Y42B ! jpegenc ! avimux ! filesink location=" +
            path_);
    }
    ~Film() { std::filesystem::remove(path_); }

    const std::string path_;
};

/// A camera service with one camera, and subscribers that each fetch every image on their own thread.
class Service {
public:
    Service(const std::string& source, int subscribers, int colorSpace)
        : module_(createModule<KRVideoDevice>(broker_, "KRVideoDevice", std::vector{source})),
          proxy_(broker_) {
        for (int i = 0; i < subscribers; ++i) {
            const std::string id = proxy_.subscribeCamera("benchmark", 0, vga, colorSpace, framesPerSecond);
            threads_.emplace_back([this, id, counts = i == 0] { fetch(id, counts); });
        }
    }
    ~Service() {
        ending_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

    /// Blocks until the first subscriber has got that many images since the last call.
    void wait(int images) {
        const int end = seen_ + images;
        for (int now = images_; now < end; now = images_) {
            images_.wait(now);
        }
        seen_ = end;
    }

private:
    void fetch(const std::string& id, bool counts) {
        while (!ending_) {
            try {
                const KRValue image = proxy_.getImageRemote(id);
                proxy_.releaseImage(id);
            } catch (const KRError&) {
                continue; // late
            }
            if (counts) {
                ++images_;
                images_.notify_one();
            }
        }
    }

    boost::shared_ptr<KRBroker> broker_ = KRBroker::create("local:");
    KRModuleHandle<KRVideoDevice> module_;
    KRVideoDeviceProxy proxy_;
    std::atomic<bool> ending_ = false;
    std::atomic<int> images_ = 0;
    int seen_ = 0;
    std::vector<std::thread> threads_;
};

void measureService(benchmark::State& state, const std::string& source, int subscribers, int colorSpace,
                    const std::string& label) {
    setLogLevel(KRLogLevel::Warning);
    Service service(source, subscribers, colorSpace);
    service.wait(warmUpFrames);
    for ([[maybe_unused]] const auto iteration : state) {
        const double start = getProcessorTime();
        service.wait(framesPerSecond);
        state.SetIterationTime(getProcessorTime() - start);
    }
    state.SetLabel(label);
}

/// A pipeline without a sink that delivers what the service would.
void measurePipeline(benchmark::State& state, const std::string& source, const std::string& label) {
    for ([[maybe_unused]] const auto iteration : state) {
        GstElement* pipeline =
            gst_parse_launch((source + " ! fakesink name=sink sync=true signal-handoffs=true "
                                       "enable-last-sample=false")
                                 .c_str(),
                             nullptr);
        std::atomic<int> images = 0;
        GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
        g_signal_connect(sink, "handoff", G_CALLBACK(+[](GstElement*, GstBuffer*, GstPad*, gpointer count) {
                             ++*static_cast<std::atomic<int>*>(count);
                             static_cast<std::atomic<int>*>(count)->notify_one();
                         }),
                         &images);
        const auto wait = [&images](int end) {
            for (int now = images; now < end; now = images) {
                images.wait(now);
            }
        };
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        wait(warmUpFrames);
        const double start = getProcessorTime();
        wait(warmUpFrames + framesPerSecond);
        state.SetIterationTime(getProcessorTime() - start);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(sink);
        gst_object_unref(pipeline);
    }
    state.SetLabel(label);
}

const std::string testSource =
    "videotestsrc is-live=true pattern=ball ! video/x-raw,format=YUY2,width=640,height=480,framerate=30/1";

std::string filmSource() {
    return "filesrc location=" + Film::getPath() +
           " ! decodebin ! videoconvert ! video/x-raw,format=YUY2,colorimetry=bt601";
}

void testPicture(benchmark::State& state) {
    measureService(state, "test", 1, yuv422, "test picture, 1 subscriber");
}
void testPictureOfGStreamer(benchmark::State& state) {
    measurePipeline(state, testSource, "test picture, 1 subscriber");
}
void testPictureForTen(benchmark::State& state) {
    measureService(state, "test", 10, yuv422, "test picture, 10 subscribers");
}
void convertedPicture(benchmark::State& state) {
    measureService(state, "test", 1, bgr, "test picture as BGR, 1 subscriber");
}
void convertedPictureForTen(benchmark::State& state) {
    measureService(state, "test", 10, bgr, "test picture as BGR, 10 subscribers");
}
void film(benchmark::State& state) {
    measureService(state, "file:" + Film::getPath(), 1, yuv422, "film, 1 subscriber");
}
void filmOfGStreamer(benchmark::State& state) {
    measurePipeline(state, filmSource(), "film, 1 subscriber");
}
void filmForTen(benchmark::State& state) {
    measureService(state, "file:" + Film::getPath(), 10, yuv422, "film, 10 subscribers");
}

/// An image with arbitrary content.
class Image {
public:
    explicit Image(GstVideoInfo info) {
        const GstHandle<GstBuffer> buffer(gst_buffer_new_allocate(nullptr, info.size, nullptr));
        if (!gst_video_frame_map(&frame, &info, buffer.get(), GST_MAP_READWRITE)) {
            throw std::runtime_error("an image cannot be mapped");
        }
        auto* bytes = static_cast<unsigned char*>(frame.data[0]);
        for (std::size_t i = 0; i < info.size; ++i) {
            bytes[i] = static_cast<unsigned char>(7 * i + i / 512);
        }
    }
    ~Image() { gst_video_frame_unmap(&frame); }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    GstVideoFrame frame;
};

GstVideoInfo describe(GstVideoFormat format, const char* colorimetry) {
    GstVideoInfo info;
    gst_video_info_set_format(&info, format, 640, 480);
    gst_video_colorimetry_from_string(&info.colorimetry, colorimetry);
    return info;
}

/// The formats that cameras and decoders deliver and modules request.
struct Conversion {
    const char* label;
    GstVideoFormat format;
    const char* colorimetry;
    int colorSpace;
};
constexpr Conversion conversions[] = {
    {"YUY2 to BGR", GST_VIDEO_FORMAT_YUY2, "bt601", bgr},
    {"YUY2 to luma", GST_VIDEO_FORMAT_YUY2, "bt601", 0},
    {"JPEG's 4:2:2 to BGR", GST_VIDEO_FORMAT_Y42B, "1:4:0:0", bgr},
    {"JPEG's 4:2:2 to YUV422", GST_VIDEO_FORMAT_Y42B, "1:4:0:0", yuv422},
    {"I420 of BT.709 to BGR", GST_VIDEO_FORMAT_I420, "bt709", bgr},
    {"I420 of BT.709 to YUV422", GST_VIDEO_FORMAT_I420, "bt709", yuv422},
};

void convert(benchmark::State& state) {
    const Conversion& conversion = conversions[state.range(0)];
    const Image image(describe(conversion.format, conversion.colorimetry));
    KRConverter converter;
    for ([[maybe_unused]] const auto iteration : state) {
        benchmark::DoNotOptimize(converter.convert(image.frame, vga, conversion.colorSpace));
    }
    state.SetLabel(conversion.label);
}
void convertWithGStreamer(benchmark::State& state) {
    const Conversion& conversion = conversions[state.range(0)];
    Image in(describe(conversion.format, conversion.colorimetry));
    Image out(getImageInfo(vga, conversion.colorSpace).value());
    GstVideoConverter* converter = gst_video_converter_new(&in.frame.info, &out.frame.info, nullptr);
    for ([[maybe_unused]] const auto iteration : state) {
        gst_video_converter_frame(converter, &in.frame, &out.frame);
    }
    gst_video_converter_free(converter);
    state.SetLabel(conversion.label);
}
void copyAsMuch(benchmark::State& state) {
    const Conversion& conversion = conversions[state.range(0)];
    const std::size_t size = (describe(conversion.format, conversion.colorimetry).size +
                              getImageInfo(vga, conversion.colorSpace).value().size) /
                             2;
    const std::vector<unsigned char> from(size, 1);
    std::vector<unsigned char> to(size);
    for ([[maybe_unused]] const auto iteration : state) {
        std::memcpy(to.data(), from.data(), size);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetLabel(conversion.label);
}

void add(const char* name, void (*measure)(benchmark::State&)) {
    benchmark::RegisterBenchmark(name, measure)
        ->UseManualTime()
        ->Iterations(2)
        ->Unit(benchmark::kMicrosecond);
}

} // namespace

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    add("second_of_a_camera/krvision/test", testPicture);
    add("second_of_a_camera/gstreamer/test", testPictureOfGStreamer);
    add("second_of_a_camera/krvision/test10", testPictureForTen);
    add("second_of_a_camera/krvision/bgr", convertedPicture);
    add("second_of_a_camera/krvision/bgr10", convertedPictureForTen);
    add("second_of_a_camera/krvision/film", film);
    add("second_of_a_camera/gstreamer/film", filmOfGStreamer);
    add("second_of_a_camera/krvision/film10", filmForTen);
    constexpr int last = static_cast<int>(std::size(conversions)) - 1;
    benchmark::RegisterBenchmark("camera_image/krvision", convert)->DenseRange(0, last);
    benchmark::RegisterBenchmark("camera_image/gstreamer", convertWithGStreamer)->DenseRange(0, last);
    benchmark::RegisterBenchmark("camera_image/memcpy", copyAsMuch)->DenseRange(0, last);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
