#include "diagnosis.hpp"

#include "colorspace.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <utility>

namespace KR::tool {

namespace {

constexpr std::uint64_t kExtraHeaderSizeOffset = 4;
constexpr std::uint64_t kCountOffset = 8;
constexpr std::uint64_t kStreamCountOffset = 12;
constexpr std::uint64_t kStreamsOffset = 16;

std::string count(std::uint64_t number, const std::string& what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

class Diagnosis {
public:
    Diagnosis(KROxvFile& recording, Progress& progress) : recording_(recording), progress_(progress) {}

    std::vector<Problem> make() {
        checkHeaders();
        if (recording_.hasFrames()) {
            checkCount();
            checkDataOffset();
            for (std::size_t stream = 0; stream < recording_.getStreams().size(); ++stream) {
                checkChunks(stream);
            }
            checkEnd();
        }
        std::ranges::stable_sort(problems_, {}, &Problem::offset);
        return std::move(problems_);
    }

private:
    void tell(std::uint64_t offset, std::string text) {
        problems_.push_back({offset, std::nullopt, std::nullopt, std::move(text)});
    }
    void tell(std::uint64_t frame, std::size_t stream, std::string text) {
        problems_.push_back({recording_.getOffset(frame, stream), frame, stream, std::move(text)});
    }

    void checkHeaders() {
        const std::uint32_t announced = recording_.getAnnouncedStreams();
        if (!recording_.hasAllStreams()) {
            tell(recording_.getFileSize(),
                 "the file ends within its headers, which need " + count(recording_.getHeaderSize(), "byte"));
        } else if (announced == 0) {
            tell(kStreamCountOffset, "no streams; readers take it for one");
        } else if (announced > KROxvFile::kMostStreams) {
            tell(kStreamCountOffset, count(announced, "stream") + ", which makes no sense");
        }
        for (std::size_t i = 0; i < recording_.getStreams().size(); ++i) {
            const std::string reason = explainUnreadable(recording_.getStreams()[i]);
            if (!reason.empty()) {
                problems_.push_back({kStreamsOffset + 16 * i, std::nullopt, i, reason});
            }
        }
    }

    void checkCount() {
        const std::uint64_t complete = recording_.countCompleteFrames();
        const std::uint32_t announced = recording_.getAnnouncedCount();
        const std::size_t streams = recording_.getStreams().size();
        if (announced == oxv::kNeverClosed) {
            tell(kCountOffset,
                 "the recording was never closed: the header does not say how many frames there are (" +
                     std::to_string(complete) + ")");
        } else if (announced != complete) {
            const bool isOfChunks = streams > 1 && announced == complete * streams;
            tell(kCountOffset,
                 "the header says " + count(announced, "frame") + ", but there " +
                     (complete == 1 ? "is " : "are ") + std::to_string(complete) +
                     (isOfChunks ? ": the recorder counts chunks, and a frame has one of each of the " +
                                       std::to_string(streams) + " streams"
                                 : ""));
        }
    }

    void checkDataOffset() {
        const std::uint32_t extra = recording_.getExtraHeaderSize();
        if (extra > 0 && recording_.getDataOffset() == recording_.getHeaderSize()) {
            tell(kExtraHeaderSizeOffset,
                 "an extra header of " + count(extra, "byte") +
                     " is announced but not there: readers miss the first frame by as many");
        }
    }

    void checkChunks(std::size_t stream) {
        const std::uint64_t frames = recording_.countCompleteFrames();
        std::optional<KROxvChunkHeader> previous;
        std::uint64_t firstStrange = 0, strange = 0;
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            const KROxvChunkHeader header = recording_.readChunkHeader(frame, stream);
            progress_.advance();
            if (recording_.getVersion() == 1 && !header.isPlausible()) {
                firstStrange = strange++ == 0 ? frame : firstStrange;
                continue;
            }
            if (previous && header.timeStamp < previous->timeStamp) {
                tell(frame, stream,
                     "the time stamp " + std::to_string(header.timeStamp) +
                         " us is before that of the frame before, " + std::to_string(previous->timeStamp) +
                         " us");
            }
            if (previous && header.cameraId != previous->cameraId) {
                tell(frame, stream,
                     "the camera is " + std::to_string(header.cameraId) + ", and " +
                         std::to_string(previous->cameraId) + " in the frame before");
            }
            previous = header;
        }
        if (strange > 0) {
            tell(firstStrange, stream,
                 "here, and in " + std::to_string(strange - 1) +
                     " of the frames behind it, the angles are none: bytes may be missing "
                     "from the file");
        }
    }

    void checkEnd() {
        const std::uint64_t complete = recording_.countCompleteFrames();
        const std::uint64_t addressable = recording_.countAddressableFrames();
        if (addressable < complete) {
            tell(addressable, 0,
                 count(complete - addressable, "frame") + " from here on lie beyond 4 GiB, where readers " +
                     "do not find them; kr video convert does");
        }
        if (recording_.countCutBytes() > 0) {
            tell(complete, 0,
                 "the frame is cut: the file has " + std::to_string(recording_.countCutBytes()) + " of its " +
                     count(recording_.getFrameSize(), "byte"));
        }
    }

    KROxvFile& recording_;
    Progress& progress_;
    std::vector<Problem> problems_;
};

} // namespace

std::vector<Problem> diagnose(KROxvFile& recording, Progress& progress) {
    return Diagnosis(recording, progress).make();
}

std::string explainUnreadable(const KROxvStream& stream) {
    const int resolution =
        getResolutionFromSize(static_cast<int>(stream.width), static_cast<int>(stream.height));
    if (resolution < 0 || resolution > kVGA) {
        return std::to_string(stream.width) + "x" + std::to_string(stream.height) +
               " pixels: readers open 160x120, 320x240 and 640x480 only";
    }
    if (stream.colorSpace > 16) {
        return "colour space " + describeColorSpace(stream.colorSpace) + ": readers open 0 to 16 only";
    }
    if (stream.depth != 8) {
        return "a depth of " + std::to_string(stream.depth) + " bits: images have 8";
    }
    return "";
}

std::vector<std::int64_t> readTimeStamps(KROxvFile& recording, std::size_t stream, Progress& progress) {
    std::vector<std::int64_t> timeStamps;
    const std::uint64_t frames = recording.countCompleteFrames();
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        timeStamps.push_back(recording.readChunkHeader(frame, stream).timeStamp);
        progress.advance();
    }
    return timeStamps;
}

} // namespace KR::tool
