#pragma once

#include "krplatform/krexport.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR {

class KRFile;
class KRImage;
struct streamHeader;

/// Properties of oxv files (docs/oxv.md).
namespace oxv {

inline constexpr std::uint32_t kNeverClosed = 0xFFFFFFFF; ///< frame count of an unfinished recording
inline constexpr std::uint32_t kColorSpaces = 17;         ///< KRVideo opens streams of the codes 0 to 16

/// A chunk begins with its header, which replaces as many bytes of pixels.
inline constexpr std::size_t kChunkHeaderSize = 25;

/// A longer interval between two frames is not a pause, but a wrong time stamp or an adjusted clock.
inline constexpr std::int64_t kLongestGap_usec = 3600LL * 1000 * 1000;

} // namespace oxv

/// One stream of an oxv file: its header, and what follows from it.
struct KR_EXPORT KROxvStream {
    std::uint32_t width;      ///< pixels
    std::uint32_t height;     ///< pixels
    std::uint32_t colorSpace; ///< code
    std::uint32_t depth;      ///< bits per sample
    std::uint64_t chunkSize;  ///< bytes per frame; 0: the header describes no possible image
    std::uint64_t offset;     ///< of its chunk in a frame, bytes

    /// \param offset  where its chunk begins in a frame
    static KROxvStream make(const streamHeader& header, std::uint64_t offset) noexcept;
    std::string describe() const; ///< "640x480 pixels of 8 bits in colour space 9"
    /// Why KRVideo does not read images from such a stream; empty if it does.
    std::string explainUnreadable() const;
};

/// What each chunk of an oxv file begins with.
struct KR_EXPORT KROxvChunkHeader {
    std::int64_t timeStamp;      ///< microseconds
    std::int8_t cameraId;        ///< the camera that took the image
    std::array<float, 4> angles; ///< left, top, right, bottom, radians; meaningless in version 0

    /// Reads the bytes at the beginning of a chunk.
    static KROxvChunkHeader decode(const unsigned char (&bytes)[oxv::kChunkHeaderSize]) noexcept;
    /// The bytes at the beginning of a chunk.
    std::array<unsigned char, oxv::kChunkHeaderSize> encode() const noexcept;

    /// Whether a recorder can have written it: the angles are finite and at most a full circle.
    bool isPlausible() const noexcept;
};

/// The file does not begin as an oxv file does.
class KR_EXPORT KRNotOxvError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads an oxv file that may be cut, damaged or hostile.
///
/// Unlike KRVideo, this reader trusts only the file's size and the stream headers, and checks these. Frames beyond 4 GiB can be read. Uses memory for one frame at most, whatever the headers announce.
/// Reentrant.
class KR_EXPORT KROxvFile {
public:
    static constexpr std::uint32_t kMostStreams = 1024; ///< a file that announces more has no usable frames

    /// Opens a regular file and reads as many of its headers as there are.
    /// \throws KRNotOxvError
    /// \throws std::runtime_error "<path>: cannot be read: <reason>"
    explicit KROxvFile(const std::string& path);
    ~KROxvFile();
    KROxvFile(const KROxvFile&) = delete;
    KROxvFile& operator=(const KROxvFile&) = delete;

    const std::string& getPath() const noexcept { return path_; }    ///< as it was given
    std::uint64_t getFileSize() const noexcept { return fileSize_; } ///< when it was opened

    /// \name Fields of the file header, unchecked; 0 where the file ends before
    ///@{
    int getVersion() const noexcept { return version_; }
    std::uint32_t getExtraHeaderSize() const noexcept { return extraHeaderSize_; }
    std::uint32_t getAnnouncedCount() const noexcept {
        return announcedCount_;
    } ///< frames, or oxv::kNeverClosed
    std::uint32_t getAnnouncedStreams() const noexcept { return announcedStreams_; } ///< 0 means 1
    ///@}
    /// Whether the recording was closed, which writes the number of its frames.
    bool isClosed() const noexcept { return getAnnouncedCount() != oxv::kNeverClosed; }

    /// The streams whose headers are in the file, at most kMostStreams; fewer than announced if the file ends before.
    const std::vector<KROxvStream>& getStreams() const noexcept { return streams_; }
    /// Bytes up to the end of the announced stream headers.
    std::uint64_t getHeaderSize() const noexcept;
    /// Whether all stream headers are there.
    bool hasAllStreams() const noexcept { return fileSize_ >= getHeaderSize(); }
    /// Whether every announced stream has a usable header, so that frames can be located.
    bool hasFrames() const noexcept { return frameSize_ > 0; }
    /// \throws std::runtime_error with the path and the reason why hasFrames() is false
    void requireFrames() const;

    /// Where the first frame begins, bytes. If the file announces an extra header that is not there, this is where
    /// the frames are, not where the header puts them.
    std::uint64_t getDataOffset() const noexcept { return dataOffset_; }
    std::uint64_t getFrameSize() const noexcept { return frameSize_; } ///< bytes; 0 without hasFrames()

    /// \name Numbers of frames; 0 without hasFrames()
    ///@{
    std::uint64_t countCompleteFrames() const noexcept;
    /// Bytes after the last complete frame.
    std::uint64_t countCutBytes() const noexcept;
    /// Frames that were recorded as far as the file tells: those announced, or those begun. With several streams, a
    /// count that the file is too short for is taken as a count of chunks, which is what KRVideo records.
    std::uint64_t countExpectedFrames() const noexcept;
    /// Complete frames that readers with 32-bit offsets can reach.
    std::uint64_t countAddressableFrames() const noexcept;
    ///@}

    /// Where a chunk begins in the file, bytes.
    /// \throws std::out_of_range no such stream
    std::uint64_t getOffset(std::uint64_t frame, std::size_t stream = 0) const;

    /// \throws std::out_of_range no such stream
    /// \throws std::runtime_error with the path: the file cannot be read there
    KROxvChunkHeader readChunkHeader(std::uint64_t frame, std::size_t stream) const;
    /// Reads any bytes of the file. \throws std::runtime_error as readChunkHeader
    void readBytes(void* to, std::uint64_t size, std::uint64_t offset) const;

    /// An image of a stream's geometry for readImage(), with an owned buffer.
    /// \throws std::out_of_range no such stream
    /// \throws std::runtime_error with the path: no image has this geometry; a depth other than 8 bits
    KRImage makeImage(std::size_t stream) const;
    /// Reads a chunk into an image from makeImage(): pixels, time stamp, camera and angles; in version 0 the angles
    /// are the default field of view. The first 25 bytes of pixels, which the file does not hold, are copied from the
    /// row below; in an image of one row, or of rows shorter than that, they are those of the chunk's header.
    /// \throws std::invalid_argument the image is not of the stream's geometry, or does not own a buffer for it
    /// \throws std::out_of_range, std::runtime_error as readChunkHeader
    void readImage(KRImage& image, std::uint64_t frame, std::size_t stream) const;

private:
    void readStreams();
    std::uint64_t findFirstFrame();
    int countPlausibleChunks(std::uint64_t dataOffset);
    std::uint64_t countBytesOfFrames() const noexcept;

    const std::string path_;
    const std::unique_ptr<KRFile> file_;
    std::uint64_t fileSize_ = 0;
    int version_ = 0;
    std::uint32_t extraHeaderSize_ = 0;
    std::uint32_t announcedCount_ = 0;
    std::uint32_t announcedStreams_ = 0;
    std::vector<KROxvStream> streams_;
    std::uint64_t dataOffset_ = 0;
    std::uint64_t frameSize_ = 0; // 0: a stream is missing or unusable
};

/// Records an oxv file like KRVideo, but counts frames rather than chunks and reports every error. Reentrant.
class KR_EXPORT KROxvWriter {
public:
    /// Creates the file, or empties it, and writes the headers.
    /// \param name  the file's name in errors, if not `path`, such as when `path` is temporary
    /// \throws std::runtime_error "<name>: cannot be written: <reason>", as all operations; a stream has an impossible
    /// geometry
    KROxvWriter(const std::string& path, const std::vector<streamHeader>& streams,
                const std::string& name = "");
    ~KROxvWriter();
    KROxvWriter(const KROxvWriter&) = delete;
    KROxvWriter& operator=(const KROxvWriter&) = delete;

    /// Whether every chunk of another frame would begin where readers with 32-bit offsets find it.
    bool hasRoom() const noexcept;
    /// Writes a frame: one chunk per stream. After an error, removeCutFrame() makes the file whole again.
    /// \param images  one per stream, of its size
    /// \throws std::runtime_error with the name: an image is missing, or not of its stream's size, and nothing has been
    /// written; or as all operations
    void write(const std::vector<const KRImage*>& images);
    /// Removes what an interrupted write() left behind the last complete frame.
    void removeCutFrame();
    std::uint32_t countFrames() const noexcept { return frames_; } ///< written so far
    /// Writes the number of frames to the header and waits for the disk.
    void close();

private:
    void check(const std::vector<const KRImage*>& images) const;
    [[noreturn]] void fail() const;

    const std::string name_;
    const std::unique_ptr<KRFile> file_;
    std::vector<KROxvStream> streams_;
    std::uint64_t frameSize_ = 0;
    std::uint64_t size_ = 0; // of the file, up to its last complete frame
    std::uint32_t frames_ = 0;
};

} // namespace KR
