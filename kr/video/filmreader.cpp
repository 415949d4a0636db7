#include "video/filmreader.hpp"

#include "video/gstreamer.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace KR::tool {

namespace {

std::string describe(int resolution) {
    int width = 0, height = 0;
    setSizeFromResolution(resolution, width, height);
    return "filesrc name=source ! decodebin name=decoder ! videoconvert name=converter ! "
           // GLib ends a process that cannot get the memory for a picture.
           "video/x-raw,width=[1,8192],height=[1,8192] ! videoscale "
           "add-borders=true ! "
           "video/x-raw,format=YUY2,pixel-aspect-ratio=1/1,colorimetry=bt601,width=" +
           std::to_string(width) + ",height=" + std::to_string(height) +
           " ! appsink name=sink sync=false max-buffers=4 enable-last-sample=false";
}

class GstFilmReader : public FilmReader {
public:
    GstFilmReader(const std::string& path, int resolution, std::chrono::milliseconds patience)
        : path_(path), patience_(patience), line_(describe(resolution)) {
        // Not in the description, where quotes and blanks in a path would have a meaning.
        g_object_set(line_.find("source").get(), "location", path.c_str(), nullptr);
        sink_ = line_.find("sink");
        g_signal_connect(line_.find("decoder").get(), "no-more-pads", G_CALLBACK(noticeStreams), this);
        try {
            line_.start();
            first_ = pull();
            if (!first_) {
                throw std::runtime_error(kNoVideo);
            }
        } catch (const std::runtime_error& error) {
            throw std::runtime_error(path + ": " + error.what());
        }
    }

    std::uint64_t estimateFrames() const override {
        GstVideoInfo info;
        gint64 duration = 0;
        if (!first_ || !gst_video_info_from_caps(&info, gst_sample_get_caps(first_.get())) ||
            info.fps_n <= 0 || !gst_element_query_duration(line_.get(), GST_FORMAT_TIME, &duration) ||
            duration <= 0) {
            return 0;
        }
        return gst_util_uint64_scale(static_cast<guint64>(duration), static_cast<guint64>(info.fps_n),
                                     static_cast<guint64>(info.fps_d) * GST_SECOND);
    }

    bool readNext(KRImage& image) override {
        try {
            const GstHandle<GstSample> sample = first_ ? std::move(first_) : pull();
            if (sample) {
                copy(sample.get(), image);
            }
            return sample != nullptr;
        } catch (const std::runtime_error& error) {
            throw std::runtime_error(path_ + ": " + error.what());
        }
    }

private:
    static constexpr const char* kNoVideo = "there is no video in it";

    // The decoder has found all streams; GStreamer would wait for ever if none of them is a video. On its thread.
    static void noticeStreams(GstElement*, gpointer reader) {
        auto* self = static_cast<GstFilmReader*>(reader);
        const GstHandle<GstElement> converter = self->line_.find("converter");
        GstPad* pad = gst_element_get_static_pad(converter.get(), "sink");
        self->hasNoVideo_ = gst_pad_is_linked(pad) == FALSE;
        gst_object_unref(pad);
    }

    /// \return null: there are no more
    GstHandle<GstSample> pull() {
        constexpr std::chrono::milliseconds kStep(50);
        GstAppSink* sink = GST_APP_SINK(sink_.get());
        for (std::chrono::milliseconds waited(0); waited < patience_; waited += kStep) {
            GstHandle<GstSample> sample(gst_app_sink_try_pull_sample(sink, kStep.count() * GST_MSECOND));
            line_.waitForEnd(0); // throws the error that may have ended the frames
            if (sample || gst_app_sink_is_eos(sink)) {
                return sample;
            }
            if (hasNoVideo_) {
                throw std::runtime_error(kNoVideo);
            }
        }
        throw std::runtime_error("no frame could be decoded within " + std::to_string(patience_.count()) +
                                 " ms");
    }

    static void copy(GstSample* sample, KRImage& image) {
        GstBuffer* buffer = gst_sample_get_buffer(sample);
        GstVideoInfo info;
        GstVideoFrame frame;
        if (!gst_video_info_from_caps(&info, gst_sample_get_caps(sample)) ||
            !gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ)) {
            throw std::runtime_error("a frame cannot be used");
        }
        const auto row = static_cast<std::size_t>(image.width) * 2;
        const auto* from = static_cast<const unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
        const auto stride = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0));
        for (std::size_t y = 0; y < static_cast<std::size_t>(image.height); ++y) {
            std::memcpy(image.data.get() + y * row, from + y * stride, row);
        }
        gst_video_frame_unmap(&frame);
        const GstClockTime time = GST_BUFFER_PTS(buffer);
        image.timeStamp = GST_CLOCK_TIME_IS_VALID(time) ? static_cast<std::int64_t>(time / GST_USECOND) : -1;
    }

    const std::string path_;
    const std::chrono::milliseconds patience_; // for one frame
    std::atomic<bool> hasNoVideo_ = false;     // set by a thread of the pipeline, which goes first
    GstLine line_;
    GstHandle<GstElement> sink_;
    GstHandle<GstSample> first_; // read ahead, to check that there is one
};

} // namespace

std::unique_ptr<FilmReader> openFilm(const std::string& path, int resolution,
                                     std::chrono::milliseconds patience) {
    return std::make_unique<GstFilmReader>(path, resolution, patience);
}

} // namespace KR::tool
