#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool {

/// What the header of a stream says, and what follows from it.
struct RecordedStream {
    std::uint32_t width;      ///< pixels
    std::uint32_t height;     ///< pixels
    std::uint32_t colorSpace; ///< code
    std::uint32_t depth;      ///< bits per sample
    std::uint64_t chunkSize;  ///< bytes per frame; 0: the header makes no sense
    std::uint64_t offset;     ///< of its chunk in a frame
};

/// What a chunk begins with.
struct ChunkHeader {
    std::int64_t timeStamp; ///< microseconds
    std::int8_t cameraId;
    std::array<float, 4> angles; ///< left, top, right, bottom, radians; meaningless in version 0

    /// Whether it can be what a recorder wrote: the angles are angles.
    bool isPlausible() const noexcept;
};

/// The file does not begin as an oxv file does.
class NoRecording : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// An oxv file (docs/oxv.md), read with a mind to what may be wrong with it: nothing is believed but the size of the
/// file and the headers of the streams. Frames beyond 4 GiB can be read too. Memory grows with a frame, not with the
/// file. Reentrant.
class Recording {
public:
    static constexpr std::uint32_t kNeverClosed = 0xFFFFFFFF;
    static constexpr std::uint64_t kChunkHeaderSize = 25;
    static constexpr std::uint32_t kMostStreams = 1024; ///< with more, there are no frames to speak of

    /// Opens a file and reads what there is of its headers.
    /// \throws NoRecording
    /// \throws std::runtime_error with the path: it cannot be read
    explicit Recording(const std::string& path);

    const std::string& getPath() const noexcept { return path_; }
    std::uint64_t getFileSize() const noexcept { return fileSize_; }

    /// \name As the header has it
    ///@{
    int getVersion() const noexcept { return words_[0] == kVersion1 ? 1 : 0; }
    std::uint32_t getExtraHeaderSize() const noexcept { return words_[1]; }
    std::uint32_t getAnnouncedCount() const noexcept { return words_[2]; }
    std::uint32_t getAnnouncedStreams() const noexcept { return words_[3]; } ///< 0 means 1
    ///@}

    /// The streams whose headers are in the file: fewer than announced if it ends before, kMostStreams at most.
    const std::vector<RecordedStream>& getStreams() const noexcept { return streams_; }
    std::uint64_t getHeaderSize() const noexcept; ///< up to the end of the announced stream headers
    bool hasAllStreams() const noexcept { return fileSize_ >= getHeaderSize(); }
    /// Whether there are frames to speak of. Otherwise the operations below must not be called.
    bool hasFrames() const noexcept { return frameSize_ > 0; }
    /// \throws std::runtime_error with the path and the reason: there are no frames to speak of
    void requireFrames() const;

    /// Where the first frame begins: not where the header says if it announces an extra header that is not there.
    std::uint64_t getDataOffset() const noexcept { return dataOffset_; }
    std::uint64_t getFrameSize() const noexcept { return frameSize_; }
    std::uint64_t countCompleteFrames() const noexcept;
    /// Bytes behind the last complete frame.
    std::uint64_t countCutBytes() const noexcept;
    /// Frames that the header announces, or begins in the file: those that there should be. A count of several
    /// streams is taken for one of chunks, as the recorder counts, if the file is not too long for that.
    std::uint64_t countExpectedFrames() const noexcept;
    /// How many of the complete frames a reader finds, whose offsets have 32 bits.
    std::uint64_t countAddressableFrames() const noexcept;
    std::uint64_t getOffset(std::uint64_t frame, std::size_t stream = 0) const noexcept;

    /// \throws std::runtime_error with the path: the file cannot be read there
    ChunkHeader readChunkHeader(std::uint64_t frame, std::size_t stream);
    /// Reads any bytes of the file. \throws std::runtime_error as above
    void readBytes(void* to, std::uint64_t size, std::uint64_t offset);

private:
    static constexpr std::uint32_t kVersion1 = 0x4F585631;
    static constexpr std::uint32_t kVersion0 = 0x4F585630;

    void readStreams();
    std::uint64_t findFirstFrame();
    int countPlausibleChunks(std::uint64_t dataOffset);
    std::uint64_t countBytesOfFrames() const noexcept;

    std::string path_;
    std::ifstream file_;
    std::uint64_t fileSize_ = 0;
    std::array<std::uint32_t, 4> words_ = {};
    std::vector<RecordedStream> streams_;
    std::uint64_t dataOffset_ = 0;
    std::uint64_t frameSize_ = 0; // 0: there is none, as a stream makes no sense or is missing
};

} // namespace KR::tool
