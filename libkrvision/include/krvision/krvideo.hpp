#pragma once

#include "krplatform/krexport.hpp"
#include "krvision/krimage.hpp"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace KR {

class KRVideoPrivate;

/// What the file's header says of one stream: 16 bytes, as they lie in the file.
struct streamHeader {
    std::uint32_t width;      ///< pixels
    std::uint32_t height;     ///< pixels
    std::uint32_t colorSpace; ///< code, see krvisiondefinitions.hpp
    std::uint32_t depth;      ///< bits per sample; 8
};

/// What a reader knows of one stream.
struct streamProperties {
    std::uint32_t width;      ///< pixels
    std::uint32_t height;     ///< pixels
    std::uint32_t resolution; ///< code: 0, 1 or 2
    std::uint32_t colorSpace; ///< code: 0 to 16
    std::uint32_t nbLayers;   ///< bytes per pixel at a depth of 8
    std::uint32_t depth;      ///< bits per sample
    std::uint32_t chunkSize;  ///< bytes per frame
};

/// Reads and records raw video files of one or more streams (cameras). The oxv format: docs/oxv.md.
///
/// An object reads one file, or records one. The path, the number of frames and the place of the first one are
/// kept once, for whichever file was opened last; nothing checks that there is only one. Offsets in a file wrap
/// round at 32 bits: frames beyond 4 GiB are not addressable. Reentrant.
///
/// The three reading operations put a chunk, as it lies in the file, into the image's buffer: the first 25 bytes
/// are not pixels, they hold the time stamp, the camera and the angles, which also go to the image's fields.
/// They tell neither read errors nor the end of a truncated file: what could not be read stays as it was in the
/// buffer. They throw nothing. With `adapt`, the image takes the stream's colour space and size, and is given
/// a larger buffer if its own is too small; it must own one, though. Without `adapt`, its geometry
/// stays as it is and its buffer must hold the stream's `chunkSize` bytes.
/// They return false, with the image as it was, if
/// - no file is open for reading;
/// - `adapt` is set, and the image owns no buffer, or one large enough cannot be had;
/// - `adapt` is not set, and the image has no buffer, or owns one that is known to be too small, or the
///   stream's chunks are shorter than 25 bytes.
class KR_EXPORT KRVideo {
public:
    KRVideo();
    /// Closes the files. The number of frames is not written to a file that is being recorded: see closeVideo().
    ~KRVideo();
    KRVideo(const KRVideo&) = delete;
    KRVideo& operator=(const KRVideo&) = delete;

    /// \name Reading
    ///@{

    /// Opens a file, in place of one that is open for reading, and reads its headers. It must be a file that
    /// can be read at any place, so no pipe. The current frame stays what it was: 0 at first.
    /// \return true
    /// \throws KRError "Can't open file <path>. Check its path and presence"; "This oxv file version isn't
    /// supported": it does not begin as an oxv file does; "Unsupported resolution": a stream is not of 160x120,
    /// 320x240 or 640x480 pixels, or the file ends within its header; "invalid color space": a stream's is not
    /// of 0 to 16. No file is open for reading then
    bool readVideo(std::string path);

    /// Makes a frame of a stream the current one; the last one in place of any beyond. Read it with getFrame():
    /// getNextFrame() goes on from the end of a chunk that has been read.
    /// \return whether a file is open for reading
    bool goToFrame(unsigned int frame, unsigned int stream);

    /// Reads a frame of a stream, as goToFrame() finds it.
    bool getFrame(KRImage& image, unsigned int frame, unsigned int stream, bool adapt);

    /// Reads the next frame of the current stream. Expects that a frame of it was the last thing read; right
    /// after readVideo() of a file with one stream it reads frame 0, and counts it as frame 1.
    ///
    /// Of the angles, only the left one is read from where it is; the others come from the bytes 10, 11 and 12
    /// on. Use getFrame() if they matter.
    /// \return false also: the current frame is the last one, and stays current. For any other reason, the frame
    /// counts as read.
    bool getNextFrame(KRImage& image, bool adapt);

    /// Reads the frame before the current one, with the angles that getNextFrame() reads.
    /// \return false also: the current frame is the first one, and stays current. For any other reason, the frame
    /// counts as read.
    bool getPrecedingFrame(KRImage& image, bool adapt);

    /// As the file's header tells it, 0xFFFFFFFF for a recording that was not closed; while recording, the chunks
    /// written so far.
    unsigned int getFrameCount() const noexcept;
    /// The streams of the file that was opened last for reading.
    const std::vector<streamProperties>& getStreams() const noexcept;
    unsigned int getCurrentFrame() const noexcept;
    unsigned int getCurrentStream() const noexcept;
    ///@}

    /// \name Recording
    /// A recording is readable once it is closed; before, it looks as if it had 0xFFFFFFFF frames. Errors
    /// while writing are not told.
    ///@{

    /// Creates the file `path` + ".oxv", whatever `path` ends in, or empties it, and writes the headers. A
    /// recording that is under way is given up as it is.
    /// \param extraHeaderSize  to be 0: it goes to the header, but as many bytes between headers and frames are
    ///                         not written, and a reader misses the first frame by them
    /// \param streams  not checked; those that a reader accepts are in readVideo()
    /// \return true
    /// \throws KRError "Can't open file. Check its path and presence"; nothing has changed
    bool recordVideo(std::string path, unsigned int extraHeaderSize, std::vector<streamHeader> streams);

    /// Appends one chunk. With several streams, the caller writes those of a frame in the order of the streams.
    /// \param buffer     a whole image of `size` bytes; its first 25 are not written
    /// \param timestamp  capture time, microseconds
    /// \param a0,a1,a2,a3  left, top, right and bottom angle, radians
    /// \return false: not recording
    bool write(char* buffer, int size, long long timestamp, char cameraIndex, float a0, float a1, float a2,
               float a3);

    /// Appends one chunk of YUV422, made of a BGR frame of `3 * rows * cols` bytes; cols is to be even.
    /// \return false: not recording
    /// \throws std::bad_alloc no memory, or a size that came out negative; nothing has been written
    bool write(int rows, int cols, char* bgr, long long timestamp, char cameraIndex, float a0, float a1,
               float a2, float a3);
    ///@}

    /// Ends a recording: writes how many chunks it has to its header, closes it and prints "stop recording
    /// <path> file (<chunks> frames)" on standard output. Closes the file that is open for reading; the reading
    /// operations do not return false after that, they read nothing any more.
    void closeVideo();

private:
    std::unique_ptr<KRVideoPrivate> p_;
};

} // namespace KR
