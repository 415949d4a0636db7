// The pixel conversions compared with the closest equivalents of other libraries, where they have one, and
// with a copy of half the bytes read and written.

#include "krconversionpath.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <benchmark/benchmark.h>

#ifdef KR_BENCHMARK_LIBYUV
#include <libyuv.h>
#endif
#ifdef KR_BENCHMARK_OPENCV
#include <opencv2/imgproc.hpp>
#endif
#ifdef KR_BENCHMARK_SWSCALE
extern "C" {
#include <libswscale/swscale.h>
}
#endif

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>

namespace {

/// Bytes aligned to a cache line, each touched once.
class Buffer {
public:
    explicit Buffer(std::size_t size)
        : size_((size + 63) / 64 * 64), bytes_(static_cast<unsigned char*>(std::aligned_alloc(64, size_))) {
        if (!bytes_) {
            throw std::bad_alloc();
        }
        std::memset(get(), 0, size_);
    }
    unsigned char* get() const { return bytes_.get(); }

private:
    struct Free {
        void operator()(unsigned char* bytes) const { std::free(bytes); }
    };
    std::size_t size_;
    std::unique_ptr<unsigned char, Free> bytes_;
};

/// The data of one benchmark: a random frame and room for any result, reused.
struct Frame {
    Frame(int inWidth, int inHeight)
        : width(inWidth), height(inHeight), pixels(static_cast<std::size_t>(inWidth) * inHeight),
          in(3 * pixels), out(3 * pixels), between(4 * pixels),
          image(width, height, KR::kYUV422ColorSpace, true, 0.0F, 0.0F, 0.0F, 0.0F) {
        std::mt19937 random(1);
        for (std::size_t i = 0; i < 3 * pixels; ++i) {
            in.get()[i] = static_cast<unsigned char>(random());
        }
        image.data = KR::KRImage::externalData(in.get());
    }

    int width, height;
    std::size_t pixels;
    Buffer in;         ///< BGR or YUV422
    Buffer out;        ///< BGR, YUV422 or planes
    Buffer between;    ///< for peers that need two steps
    KR::KRImage image; ///< of `in`, as YUV422
};

using Conversion = std::function<void(Frame&)>;

void registerConversion(const std::string& subject, const std::string& implementation,
                        const Conversion& convert) {
    auto* registered = benchmark::RegisterBenchmark(
        (subject + "/" + implementation).c_str(), [convert](benchmark::State& state) {
            Frame frame(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
            for ([[maybe_unused]] auto _ : state) {
                convert(frame);
                benchmark::ClobberMemory();
            }
            state.SetLabel(std::to_string(frame.width) + "x" + std::to_string(frame.height));
        });
    for (const auto& [width, height] : {std::pair{160, 120}, {640, 480}, {1280, 960}, {2560, 1920}}) {
        registered->Args({width, height});
    }
    registered->Unit(benchmark::kMicrosecond);
}

// ---- ours: the fastest path of the processor, AVX2 if that differs, and the scalar one

void registerOurs(const std::string& subject, const Conversion& convert) {
    const auto registerForced = [&](const std::string& implementation, const KR::ConversionPath* path) {
        registerConversion(subject, implementation, [convert, path](Frame& frame) {
            KR::forceConversionPath(path);
            convert(frame);
            KR::forceConversionPath(nullptr);
        });
    };
    registerConversion(subject, "krvision", convert);
    const auto paths = KR::conversionPaths();
    for (const KR::ConversionPath* path : paths) {
        if (path != paths.front() && std::string_view(path->name) == "AVX2") {
            registerForced("avx2", path);
        }
    }
    registerForced("scalar", paths.back());
}

// ---- a copy of half the bytes read and written

void registerCopy(const std::string& subject, std::size_t halvesPerPixel) {
    registerConversion(subject, "memcpy", [halvesPerPixel](Frame& frame) {
        std::memcpy(frame.out.get(), frame.in.get(), frame.pixels * halvesPerPixel / 2);
    });
}

#ifdef KR_BENCHMARK_SWSCALE
void registerSwscale(const std::string& subject, AVPixelFormat from, AVPixelFormat to) {
    const auto bytesOfFirstPlane = [](AVPixelFormat format, int width) {
        return format == AV_PIX_FMT_BGR24 ? 3 * width : format == AV_PIX_FMT_YUYV422 ? 2 * width : width;
    };
    struct Context {
        std::unique_ptr<SwsContext, void (*)(SwsContext*)> made{nullptr, sws_freeContext};
        int width = 0; // of the scaler
    };
    const auto context = std::make_shared<Context>();
    registerConversion(subject, "swscale", [=](Frame& frame) {
        if (context->width != frame.width) {
            context->made.reset(sws_getContext(frame.width, frame.height, from, frame.width, frame.height, to,
                                               SWS_POINT, nullptr, nullptr, nullptr));
            context->width = frame.width;
        }
        const std::uint8_t* in[4] = {frame.in.get()};
        const int inStride[4] = {bytesOfFirstPlane(from, frame.width)};
        const int chromaWidth = to == AV_PIX_FMT_YUV422P ? frame.width / 2 : frame.width;
        std::uint8_t* y = frame.out.get();
        std::uint8_t* u = y + frame.pixels;
        std::uint8_t* out[4] = {y, u, u + static_cast<std::size_t>(chromaWidth) * frame.height};
        const int outStride[4] = {bytesOfFirstPlane(to, frame.width), chromaWidth, chromaWidth};
        sws_scale(context->made.get(), in, inStride, 0, frame.height, out, outStride);
    });
}
#endif

void registerYuv422FromBgr() {
    const std::string subject = "bgr_to_yuv422";
    registerOurs(subject, [](Frame& frame) {
        KR::KRImage& image = frame.image;
        if (image.data.get() != frame.out.get()) { // only the first time
            image.data = KR::KRImage::externalData(frame.out.get());
        }
        image.computeYUV422imageFromBGR(frame.height, frame.width, reinterpret_cast<char*>(frame.in.get()));
    });
    registerCopy(subject, 5);
#ifdef KR_BENCHMARK_LIBYUV
    registerConversion(subject, "libyuv", [](Frame& frame) { // through ARGB; averages the chroma of a pair
        const int argbStride = 4 * frame.width;
        libyuv::RGB24ToARGB(frame.in.get(), 3 * frame.width, frame.between.get(), argbStride, frame.width,
                            frame.height);
        libyuv::ARGBToYUY2(frame.between.get(), argbStride, frame.out.get(), 2 * frame.width, frame.width,
                           frame.height);
    });
#endif
#ifdef KR_BENCHMARK_OPENCV
    registerConversion(subject, "opencv", [](Frame& frame) { // to planes with a quarter of the chroma: 4:2:0
        const cv::Mat in(frame.height, frame.width, CV_8UC3, frame.in.get());
        cv::Mat out(frame.height * 3 / 2, frame.width, CV_8UC1, frame.out.get());
        cv::cvtColor(in, out, cv::COLOR_BGR2YUV_I420);
    });
#endif
#ifdef KR_BENCHMARK_SWSCALE
    registerSwscale(subject, AV_PIX_FMT_BGR24, AV_PIX_FMT_YUYV422);
#endif
}

void registerBgrFromYuv422() {
    const std::string subject = "yuv422_to_bgr";
    registerOurs(subject, [](Frame& frame) { frame.image.computeBGRimageFromYUV422(frame.out.get()); });
    registerCopy(subject, 5);
#ifdef KR_BENCHMARK_LIBYUV
    registerConversion(subject, "libyuv", [](Frame& frame) { // through planes
        const int half = frame.width / 2;
        unsigned char* y = frame.between.get();
        unsigned char* u = y + frame.pixels;
        unsigned char* v = u + frame.pixels / 2;
        libyuv::YUY2ToI422(frame.in.get(), 2 * frame.width, y, frame.width, u, half, v, half, frame.width,
                           frame.height);
        libyuv::I422ToRGB24(y, frame.width, u, half, v, half, frame.out.get(), 3 * frame.width, frame.width,
                            frame.height);
    });
#endif
#ifdef KR_BENCHMARK_OPENCV
    registerConversion(subject, "opencv", [](Frame& frame) {
        const cv::Mat in(frame.height, frame.width, CV_8UC2, frame.in.get());
        cv::Mat out(frame.height, frame.width, CV_8UC3, frame.out.get());
        cv::cvtColor(in, out, cv::COLOR_YUV2BGR_YUY2);
    });
#endif
#ifdef KR_BENCHMARK_SWSCALE
    registerSwscale(subject, AV_PIX_FMT_YUYV422, AV_PIX_FMT_BGR24);
#endif
}

void registerPlanes444() {
    const std::string subject = "yuv422_to_planes444";
    registerOurs(subject, [](Frame& frame) { frame.image.computeYYYUUUVVVimageFromYUV422(frame.out.get()); });
    registerCopy(subject, 5);
#ifdef KR_BENCHMARK_LIBYUV
    registerConversion(subject, "libyuv", [](Frame& frame) { // through 4:2:2 planes
        const int half = frame.width / 2;
        unsigned char* y = frame.between.get();
        unsigned char* u = y + frame.pixels;
        unsigned char* v = u + frame.pixels / 2;
        libyuv::YUY2ToI422(frame.in.get(), 2 * frame.width, y, frame.width, u, half, v, half, frame.width,
                           frame.height);
        unsigned char* out = frame.out.get();
        libyuv::I422ToI444(y, frame.width, u, half, v, half, out, frame.width, out + frame.pixels,
                           frame.width, out + 2 * frame.pixels, frame.width, frame.width, frame.height);
    });
#endif
#ifdef KR_BENCHMARK_SWSCALE
    registerSwscale(subject, AV_PIX_FMT_YUYV422, AV_PIX_FMT_YUV444P);
#endif
}

void registerPlanes422() {
    const std::string subject = "yuv422_to_planes422";
    registerOurs(subject, [](Frame& frame) { frame.image.computeYYYYUUVVimageFromYUV422(frame.out.get()); });
    registerCopy(subject, 4);
#ifdef KR_BENCHMARK_LIBYUV
    registerConversion(subject, "libyuv", [](Frame& frame) {
        const int half = frame.width / 2;
        unsigned char* y = frame.out.get();
        unsigned char* u = y + frame.pixels;
        libyuv::YUY2ToI422(frame.in.get(), 2 * frame.width, y, frame.width, u, half, u + frame.pixels / 2,
                           half, frame.width, frame.height);
    });
#endif
#ifdef KR_BENCHMARK_SWSCALE
    registerSwscale(subject, AV_PIX_FMT_YUYV422, AV_PIX_FMT_YUV422P);
#endif
}

} // namespace

int main(int argc, char** argv) {
#ifdef KR_BENCHMARK_OPENCV
    cv::setNumThreads(1); // like the others
#endif
    registerYuv422FromBgr();
    registerBgrFromYuv422();
    registerPlanes444();
    registerPlanes422();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
