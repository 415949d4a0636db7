#include "image/pictureconversion.hpp"
#include "tool/colorspace.hpp"
#include "tool/filewriter.hpp"
#include "video/framesink.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <vector>

namespace KR::tool {

namespace {

class Y4mSink : public FrameSink {
public:
    Y4mSink(const std::string& path, std::int64_t interval_usec)
        : file_(path), interval_usec_(interval_usec) {}

    void write(const KRImage& image, std::uint64_t, std::int64_t) override {
        const bool isLuma = image.colorSpace == kLumaColorSpace;
        if (!isStarted_) {
            const std::string header = "YUV4MPEG2 W" + std::to_string(image.width) + " H" +
                                       std::to_string(image.height) +
                                       " F1000000:" + std::to_string(interval_usec_) + " Ip A1:1 " +
                                       (isLuma ? "Cmono" : "C422") + " XCOLORRANGE=LIMITED\n";
            file_.write(header.data(), header.size());
            isStarted_ = true;
        }
        const std::string start = "FRAME\n";
        frame_.assign(start.begin(), start.end());
        const auto pixels = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height);
        if (isLuma) {
            frame_.insert(frame_.end(), image.data.get(), image.data.get() + pixels);
        } else {
            frame_.resize(start.size() + 2 * pixels);
            addPlanes(image, frame_.data() + start.size());
        }
        file_.write(frame_.data(), frame_.size());
    }

    void finish() override { file_.close(); }

private:
    static void addPlanes(const KRImage& image, unsigned char* to) {
        const bool isYuv422 = image.colorSpace == kYUV422ColorSpace;
        const KRImage pixels = isYuv422 ? image : makeImage(makePicture(image), kYUV422ColorSpace);
        pixels.computeYYYYUUVVimageFromYUV422(to);
    }

    FileWriter file_;
    const std::int64_t interval_usec_;
    bool isStarted_ = false;
    std::vector<unsigned char> frame_;
};

} // namespace

std::unique_ptr<FrameSink> makeY4mSink(const std::string& path, std::int64_t interval_usec) {
    return std::make_unique<Y4mSink>(path, interval_usec);
}

} // namespace KR::tool
