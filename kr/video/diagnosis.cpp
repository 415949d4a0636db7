#include "video/diagnosis.hpp"

#include "video/timeline.hpp"

#include <krvision/krcolorspacenames.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <utility>

namespace KR::tool {

namespace {

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
    void report(std::uint64_t offset, std::string text) {
        problems_.push_back({offset, std::nullopt, std::nullopt, std::move(text)});
    }
    void report(std::uint64_t frame, std::size_t stream, std::string text) {
        problems_.push_back({recording_.getOffset(frame, stream), frame, stream, std::move(text)});
    }

    void checkHeaders() {
        const std::uint32_t announced = recording_.getAnnouncedStreams();
        if (!recording_.hasAllStreams()) {
            report(recording_.getFileSize(), "the file ends within its headers, which need " +
                                                 count(recording_.getHeaderSize(), "byte"));
        } else if (announced == 0) {
            report(oxv::kStreamCountOffset, "no streams; readers assume one");
        } else if (announced > KROxvFile::kMostStreams) {
            report(oxv::kStreamCountOffset, count(announced, "stream") + "; files have up to " +
                                                std::to_string(KROxvFile::kMostStreams));
        }
        for (std::size_t i = 0; i < recording_.getStreams().size(); ++i) {
            const std::string reason = explainUnreadable(recording_.getStreams()[i]);
            if (!reason.empty()) {
                problems_.push_back(
                    {oxv::kFileHeaderSize + oxv::kStreamHeaderSize * i, std::nullopt, i, reason});
            }
        }
    }

    void checkCount() {
        const std::uint64_t complete = recording_.countCompleteFrames();
        const std::uint32_t announced = recording_.getAnnouncedCount();
        const std::size_t streams = recording_.getStreams().size();
        if (announced == oxv::kNeverClosed) {
            report(oxv::kFrameCountOffset,
                   "the recording was never closed: the header does not say how many frames there are (" +
                       std::to_string(complete) + ")");
        } else if (announced != complete) {
            const bool isOfChunks = streams > 1 && announced == complete * streams;
            report(oxv::kFrameCountOffset,
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
            report(oxv::kExtraHeaderSizeOffset,
                   "an extra header of " + count(extra, "byte") +
                       " is announced but missing: readers look for the first frame that far behind it");
        }
    }

    void checkChunks(std::size_t stream) {
        const std::uint64_t frames = recording_.countCompleteFrames();
        std::optional<KROxvChunkHeader> previous;
        std::optional<std::uint64_t> firstImplausible;
        std::uint64_t implausible = 0;
        TimeStamps timeStamps;
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            const KROxvChunkHeader header = recording_.readChunkHeader(frame, stream);
            progress_.advance();
            if (recording_.getVersion() == 1 && !header.isPlausible()) {
                firstImplausible = firstImplausible.value_or(frame);
                ++implausible;
                continue;
            }
            checkTimeStamp(timeStamps, {frame, header.timeStamp}, stream);
            if (previous && header.cameraId != previous->cameraId) {
                report(frame, stream,
                       "the camera is " + std::to_string(header.cameraId) + ", and " +
                           std::to_string(previous->cameraId) + " in the previous frame");
            }
            previous = header;
        }
        if (firstImplausible) {
            report(*firstImplausible, stream,
                   "invalid angles in this frame and " + std::to_string(implausible - 1) +
                       " later ones: bytes may be missing from the file");
        }
    }

    struct TimeStamp {
        std::uint64_t frame;
        std::int64_t time_usec;
    };
    /// The last two of a stream.
    struct TimeStamps {
        std::optional<TimeStamp> last;
        std::optional<TimeStamp> beforeLast;
    };

    void checkTimeStamp(TimeStamps& before, const TimeStamp& now, std::size_t stream) {
        constexpr std::int64_t kOutlier_usec = 1000000;
        if (before.last && now.time_usec < before.last->time_usec) {
            // If this one fits the one before the last, the last one was ahead of both.
            if (before.beforeLast && now.time_usec >= before.beforeLast->time_usec &&
                isAhead(*before.last, *before.beforeLast, kOutlier_usec) &&
                !isAhead(*before.last, *before.beforeLast, kLongestGap_usec)) {
                reportJump(*before.last, *before.beforeLast, stream);
            }
            report(now.frame, stream,
                   "the time stamp " + std::to_string(now.time_usec) +
                       " us is before that of the previous frame, " + std::to_string(before.last->time_usec) +
                       " us");
        } else if (before.last && isAhead(now, *before.last, kLongestGap_usec)) {
            reportJump(now, *before.last, stream);
        }
        before.beforeLast = before.last;
        before.last = now;
    }
    static bool isAhead(const TimeStamp& time, const TimeStamp& before, std::int64_t limit_usec) {
        std::int64_t interval = 0;
        return __builtin_sub_overflow(time.time_usec, before.time_usec, &interval) || interval > limit_usec;
    }
    void reportJump(const TimeStamp& time, const TimeStamp& before, std::size_t stream) {
        report(time.frame, stream,
               "the time stamp " + std::to_string(time.time_usec) +
                   " us jumps forward: the previous frame has " + std::to_string(before.time_usec) + " us");
    }

    void checkEnd() {
        const std::uint64_t complete = recording_.countCompleteFrames();
        const std::uint64_t addressable = recording_.countAddressableFrames();
        if (addressable < complete) {
            report(addressable, 0,
                   count(complete - addressable, "frame") +
                       " from here on lie beyond 4 GiB, where readers do not find them; " +
                       "kr video convert does");
        }
        if (recording_.countCutBytes() > 0) {
            report(complete, 0,
                   "the frame is cut: the file has " + std::to_string(recording_.countCutBytes()) +
                       " of its " + count(recording_.getFrameSize(), "byte"));
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
    if (stream.colorSpace >= oxv::kColorSpaces) {
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
