#include "kroxvlayout.hpp"
#include "krvision/kroxvfile.hpp"
#include "krvision/kroxvrepair.hpp"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace KR {

namespace {

std::string describeCount(std::uint64_t number, const std::string& what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

class OxvDiagnosis {
public:
    OxvDiagnosis(const KROxvFile& file, const std::function<void()>& onChunk)
        : file_(file), onChunk_(onChunk) {}

    std::vector<KROxvProblem> make() {
        checkHeaders();
        if (file_.hasFrames()) {
            checkCount();
            checkDataOffset();
            for (std::size_t stream = 0; stream < file_.getStreams().size(); ++stream) {
                checkChunks(stream);
            }
            checkEnd();
        }
        std::ranges::stable_sort(problems_, {}, &KROxvProblem::offset);
        return std::move(problems_);
    }

private:
    void report(std::uint64_t offset, std::string text) {
        problems_.push_back({offset, std::nullopt, std::nullopt, std::move(text)});
    }
    void report(std::uint64_t frame, std::size_t stream, std::string text) {
        problems_.push_back({file_.getOffset(frame, stream), frame, stream, std::move(text)});
    }

    void checkHeaders() {
        const std::uint32_t announced = file_.getAnnouncedStreams();
        if (!file_.hasAllStreams()) {
            report(file_.getFileSize(), "the file ends within its headers, which need " +
                                            describeCount(file_.getHeaderSize(), "byte"));
        } else if (announced == 0) {
            report(offsetof(oxv::FileHeader, streams), "no streams; readers assume one");
        } else if (announced > KROxvFile::kMostStreams) {
            report(offsetof(oxv::FileHeader, streams), describeCount(announced, "stream") +
                                                           "; files have up to " +
                                                           std::to_string(KROxvFile::kMostStreams));
        }
        for (std::size_t i = 0; i < file_.getStreams().size(); ++i) {
            const std::string reason = file_.getStreams()[i].explainUnreadable();
            if (!reason.empty()) {
                problems_.push_back(
                    {sizeof(oxv::FileHeader) + sizeof(streamHeader) * i, std::nullopt, i, reason});
            }
        }
    }

    void checkCount() {
        const std::uint64_t complete = file_.countCompleteFrames();
        const std::uint32_t announced = file_.getAnnouncedCount();
        const std::size_t streams = file_.getStreams().size();
        if (!file_.isClosed()) {
            report(offsetof(oxv::FileHeader, frames),
                   "the recording was never closed: the header does not say how many frames there are (" +
                       std::to_string(complete) + ")");
        } else if (announced != complete) {
            const bool isOfChunks = streams > 1 && announced == complete * streams;
            report(offsetof(oxv::FileHeader, frames),
                   "the header says " + describeCount(announced, "frame") + ", but there " +
                       (complete == 1 ? "is " : "are ") + std::to_string(complete) +
                       (isOfChunks ? ": the recorder counts chunks, and a frame has one of each of the " +
                                         std::to_string(streams) + " streams"
                                   : ""));
        }
    }

    void checkDataOffset() {
        const std::uint32_t extra = file_.getExtraHeaderSize();
        if (extra > 0 && file_.getDataOffset() == file_.getHeaderSize()) {
            report(offsetof(oxv::FileHeader, extraHeaderSize),
                   "an extra header of " + describeCount(extra, "byte") +
                       " is announced but missing: readers look for the first frame that far behind it");
        }
    }

    void checkChunks(std::size_t stream) {
        const std::uint64_t frames = file_.countCompleteFrames();
        std::optional<KROxvChunkHeader> previous;
        std::optional<std::uint64_t> firstImplausible;
        std::uint64_t implausible = 0;
        TimeStamps timeStamps;
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            const KROxvChunkHeader header = file_.readChunkHeader(frame, stream);
            if (onChunk_) {
                onChunk_();
            }
            if (file_.getVersion() == 1 && !header.isPlausible()) {
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
                !isAhead(*before.last, *before.beforeLast, oxv::kLongestGap_usec)) {
                reportJump(*before.last, *before.beforeLast, stream);
            }
            report(now.frame, stream,
                   "the time stamp " + std::to_string(now.time_usec) +
                       " us is before that of the previous frame, " + std::to_string(before.last->time_usec) +
                       " us");
        } else if (before.last && isAhead(now, *before.last, oxv::kLongestGap_usec)) {
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
        const std::uint64_t complete = file_.countCompleteFrames();
        if (file_.countCutBytes() > 0) {
            report(complete, 0,
                   "the frame is cut: the file has " + std::to_string(file_.countCutBytes()) + " of its " +
                       describeCount(file_.getFrameSize(), "byte"));
        }
    }

    const KROxvFile& file_;
    const std::function<void()>& onChunk_;
    std::vector<KROxvProblem> problems_;
};

} // namespace

std::vector<KROxvProblem> findProblems(const KROxvFile& file, const std::function<void()>& onChunk) {
    return OxvDiagnosis(file, onChunk).make();
}

} // namespace KR
