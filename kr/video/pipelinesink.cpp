#include "video/pipelinesink.hpp"

#include "image/pictureconversion.hpp"
#include "tool/colorspace.hpp"
#include "tool/command.hpp"
#include "tool/outputfile.hpp"
#include "video/gstreamer.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace KR::tool {

namespace {

struct Film {
    const char* extension;
    const char* codec;
    const char* elements;
};

// Encoders of GStreamer's base and good plug-ins. jpegenc ignores the range of YUV, and a jpeg has the full one: hence
// RGB. vp9enc lacks caps that mp4mux requires.
constexpr std::array kFilms = {
    Film{".mkv", "jpeg", "videoconvert ! video/x-raw,format=RGB ! jpegenc quality=90 ! matroskamux"},
    Film{".mkv", "vp8",
         "videoconvert ! vp8enc deadline=1 cpu-used=4 end-usage=cq cq-level=10 max-quantizer=40 "
         "target-bitrate=20000000 keyframe-max-dist=60 ! matroskamux"},
    Film{".mp4", "vp9",
         "videoconvert ! video/x-raw,format=I420,colorimetry=bt601 ! vp9enc deadline=1 cpu-used=6 "
         "end-usage=cq "
         "cq-level=20 target-bitrate=20000000 keyframe-max-dist=60 ! capssetter caps=\"video/x-vp9,"
         "chroma-format=(string)4:2:0,chroma-site=(string)mpeg2,colorimetry=(string)bt601\" ! mp4mux"},
};

const Film& findFilm(const std::string& extension, const std::string& codec) {
    const auto found = std::ranges::find_if(kFilms, [&](const Film& film) {
        return film.extension == extension && (codec.empty() || film.codec == codec);
    });
    if (found == kFilms.end()) {
        throw UsageError("there is no codec " + codec + " for " + extension + " files; codecs are " +
                         listFilmFormats());
    }
    return *found;
}

std::optional<GstVideoFormat> findFormat(int colorSpace) {
    switch (colorSpace) {
    case kLumaColorSpace:
        return GST_VIDEO_FORMAT_GRAY8;
    case kYUV422ColorSpace:
        return GST_VIDEO_FORMAT_YUY2;
    case kRgbColorSpace:
        return GST_VIDEO_FORMAT_RGB;
    case kBgrColorSpace:
        return GST_VIDEO_FORMAT_BGR;
    case kBgrxColorSpace:
        return GST_VIDEO_FORMAT_BGRx;
    default:
        return std::nullopt;
    }
}

/// Feeds a pipeline that begins with appsrc name=source.
class PipelineSink : public FrameSink {
public:
    /// \param file  path that the pipeline writes to, for errors; "": none
    PipelineSink(const std::string& description, std::int64_t interval_usec, const std::string& file)
        : file_(file), line_("appsrc name=source format=time ! " + description),
          source_(line_.find("source")), interval_usec_(interval_usec) {}

    GstLine& getLine() { return line_; }

    void write(const KRImage& image, std::uint64_t, std::int64_t time_usec) override {
        withFileName([&] {
            if (!isStarted_) {
                start(image);
            }
            waitForRoom();
            push(image, time_usec);
        });
    }

    void finish() override {
        if (isStarted_) {
            gst_app_src_end_of_stream(GST_APP_SRC(source_.get()));
            withFileName([&] { line_.waitForEnd(GST_CLOCK_TIME_NONE); });
        }
    }

private:
    // Errors of GStreamer do not name the file.
    template <class Function>
    void withFileName(Function function) {
        try {
            function();
        } catch (const std::runtime_error& error) {
            if (file_.empty()) {
                throw;
            }
            throw std::runtime_error(getFinalName(file_) + ": " + error.what());
        }
    }

    void start(const KRImage& image) {
        const std::optional<GstVideoFormat> format = findFormat(image.colorSpace);
        if (!format) {
            throw std::runtime_error("colour space " + std::to_string(image.colorSpace) +
                                     " is not supported; colour spaces are " + listColorSpaces());
        }
        gst_video_info_set_format(&info_, *format, static_cast<guint>(image.width),
                                  static_cast<guint>(image.height));
        info_.fps_n = 1000000;
        info_.fps_d = static_cast<gint>(interval_usec_);
        if (!GST_VIDEO_INFO_IS_RGB(&info_)) {
            gst_video_colorimetry_from_string(&info_.colorimetry, GST_VIDEO_COLORIMETRY_BT601);
        }
        const GstHandle<GstCaps> caps(gst_video_info_to_caps(&info_));
        gst_app_src_set_caps(GST_APP_SRC(source_.get()), caps.get());
        line_.start();
        isStarted_ = true;
    }

    // appsrc itself would wait for ever in a pipeline that has failed.
    void waitForRoom() {
        constexpr guint64 kFrames = 4;
        while (gst_app_src_get_current_level_bytes(GST_APP_SRC(source_.get())) > kFrames * info_.size) {
            requireRunning(2 * GST_MSECOND);
        }
        requireRunning(0);
    }
    void requireRunning(GstClockTime timeout) {
        if (line_.waitForEnd(timeout)) {
            throw std::runtime_error("the pipeline has ended before the last frame");
        }
    }

    void push(const KRImage& image, std::int64_t time_usec) {
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, info_.size, nullptr);
        GstMapInfo map;
        if (buffer == nullptr || !gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
            throw std::bad_alloc();
        }
        // In GStreamer, each row begins at a multiple of four bytes.
        const auto row = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.nbLayers);
        const auto stride = static_cast<std::size_t>(GST_VIDEO_INFO_PLANE_STRIDE(&info_, 0));
        const auto height = static_cast<std::size_t>(image.height);
        for (std::size_t y = 0; y < height; ++y) {
            std::memcpy(map.data + y * stride, image.data.get() + y * row, row);
        }
        gst_buffer_unmap(buffer, &map);
        GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(time_usec) * GST_USECOND;
        GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(interval_usec_) * GST_USECOND;
        gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer); // takes the buffer
    }

    const std::string file_;
    GstLine line_;
    const GstHandle<GstElement> source_;
    const std::int64_t interval_usec_;
    GstVideoInfo info_ = {};
    bool isStarted_ = false;
};

} // namespace

std::string listFilmFormats() {
    std::string list;
    const char* extension = "";
    for (const Film& film : kFilms) {
        const bool isNew = std::strcmp(film.extension, extension) != 0;
        list += isNew ? (list.empty() ? "" : "), ") + std::string(film.extension + 1) + " (" : ", ";
        list += film.codec;
        extension = film.extension;
    }
    return list + ")";
}

bool isFilmExtension(const std::string& extension) {
    return std::ranges::any_of(kFilms, [&](const Film& film) { return film.extension == extension; });
}

std::unique_ptr<FrameSink> makeFilmSink(const std::string& path, const std::string& extension,
                                        const std::string& codec, std::int64_t interval_usec) {
    const Film& film = findFilm(extension, codec);
    auto sink = std::make_unique<PipelineSink>(std::string(film.elements) + " ! filesink name=file",
                                               interval_usec, path);
    // Not in the description, where quotes and blanks in a path would have a meaning.
    g_object_set(sink->getLine().find("file").get(), "location", path.c_str(), nullptr);
    return sink;
}

std::unique_ptr<FrameSink> makeWindowSink(std::int64_t interval_usec) {
    const auto isSet = [](const char* name) {
        const char* value = std::getenv(name);
        return value != nullptr && *value != '\0';
    };
    if (!isSet("DISPLAY") && !isSet("WAYLAND_DISPLAY")) {
        throw std::runtime_error("there is no display here (neither DISPLAY nor WAYLAND_DISPLAY is set)");
    }
    auto sink = std::make_unique<PipelineSink>("videoconvert ! autovideosink", interval_usec, "");
    // Without a real sink, autovideosink would discard the frames.
    GList* able = gst_element_factory_list_get_elements(
        GST_ELEMENT_FACTORY_TYPE_SINK | GST_ELEMENT_FACTORY_TYPE_MEDIA_VIDEO, GST_RANK_MARGINAL);
    const bool hasAny = able != nullptr;
    gst_plugin_feature_list_free(able);
    if (!hasAny) {
        throw std::runtime_error(
            "GStreamer lacks a plug-in to show video with (such as gstreamer1.0-x in Debian)");
    }
    return sink;
}

} // namespace KR::tool
