#pragma once

#include "krplatform/krexport.hpp"
#include "krvision/krimage.hpp"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace KR {

class KRVideoPrivate;

/// The header of one stream: 16 bytes, as in the file.
struct streamHeader {
    std::uint32_t width;      ///< pixels
    std::uint32_t height;     ///< pixels
    std::uint32_t colorSpace; ///< code, see krvisiondefinitions.hpp
    std::uint32_t depth;      ///< bits per sample; 8
};

/// The properties of one stream of an open file.
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
/// For files that may be damaged or hostile, and to have errors reported, use KROxvFile and KROxvWriter
/// (<krvision/kroxvfile.hpp>).
///
/// An object reads or records one file. The path, the number of frames and the place of the first one belong to
/// whichever file was opened last; opening a file while recording another is not checked. Offsets wrap at 32 bits:
/// frames beyond 4 GiB are not addressable. Reentrant.
///
/// The three reading operations read a chunk straight into the image's buffer: the first 25 bytes are not pixels but
/// the time stamp, the camera and the angles, which also go to the image's fields. Read errors and the end of a
/// truncated file are not reported: what could not be read stays as it was in the buffer. Nothing is thrown. With
/// `adapt`, the image takes the stream's colour space and size and gets a larger buffer if its own is too small; it
/// must own one. Without `adapt`, its geometry stays as it is and its buffer must hold the stream's `chunkSize`
/// bytes, and 25 in any case: in streams with shorter chunks, such as those of depth 0, the time stamp, the camera
/// and the angles are what the buffer holds beyond the chunk.
/// They return false and leave the image as it was if
/// - no file is open for reading;
/// - `adapt` is set, and the image owns no buffer, or one large enough cannot be allocated;
/// - `adapt` is not set, and the image has no buffer, owns one that is known to be too small, or has an external one
///   for which neither its geometry nor the chunk promises 25 bytes.
class KR_EXPORT KRVideo {
public:
    KRVideo();
    /// Closes the files. The number of frames of a recording in progress is not written: see closeVideo().
    ~KRVideo();
    KRVideo(const KRVideo&) = delete;
    KRVideo& operator=(const KRVideo&) = delete;

    /// \name Reading
    ///@{

    /// Opens a file in place of the one open for reading, and reads its headers. The file must be seekable. The
    /// current frame stays what it was: 0 at first.
    /// \return true
    /// \throws KRError "Can't open file <path>. Check its path and presence"; "This oxv file version isn't
    /// supported": it does not begin as an oxv file does; "Unsupported resolution": a stream does not have 160x120,
    /// 320x240 or 640x480 pixels, or the file ends within its header; "invalid color space": a stream's code is not
    /// 0 to 16. No file is open for reading then
    bool readVideo(std::string path);

    /// Makes a frame of a stream the current one; the last frame, or stream, in place of any beyond. Read it with
    /// getFrame(): getNextFrame() continues from the end of the chunk read last.
    /// \return whether a file is open for reading
    bool goToFrame(unsigned int frame, unsigned int stream);

    /// Reads a frame of a stream, located as by goToFrame().
    bool getFrame(KRImage& image, unsigned int frame, unsigned int stream, bool adapt);

    /// Reads the next frame of the current stream. Expects that a frame of it was read last; right after readVideo()
    /// of a file with one stream it reads frame 0 and counts it as frame 1.
    ///
    /// Of the angles, only the left one is read from its place; the others are read from bytes 10, 11 and 12 on.
    /// Use getFrame() if they matter.
    /// \return false also if the current frame is the last one, which stays current. After false for any other
    /// reason, the frame counts as read.
    bool getNextFrame(KRImage& image, bool adapt);

    /// Reads the frame before the current one, with the angles that getNextFrame() reads.
    /// \return false also if the current frame is the first one, which stays current. After false for any other
    /// reason, the frame counts as read.
    bool getPrecedingFrame(KRImage& image, bool adapt);

    /// The number in the file's header, 0xFFFFFFFF for a recording that was not closed; while recording, the chunks
    /// written so far.
    unsigned int getFrameCount() const noexcept;
    /// The streams of the file that was opened last for reading.
    const std::vector<streamProperties>& getStreams() const noexcept;
    unsigned int getCurrentFrame() const noexcept;
    unsigned int getCurrentStream() const noexcept;
    ///@}

    /// \name Recording
    /// A recording is readable once it is closed; until then its header says 0xFFFFFFFF frames. Errors while writing
    /// are not reported.
    ///@{

    /// Creates the file `path` + ".oxv", whatever `path` ends in, or empties it, and writes the headers. A recording
    /// in progress is abandoned as it is.
    /// \param extraHeaderSize  pass 0: it goes to the header, but the bytes that it announces are not written, so a
    ///                         reader misses the first frame by that many
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

    /// Ends a recording: writes the number of chunks to its header, closes it and prints "stop recording <path> file
    /// (<chunks> frames)" on standard output. Also closes the file that is open for reading; the reading operations
    /// still return true after that, but read nothing.
    void closeVideo();

private:
    std::unique_ptr<KRVideoPrivate> p_;
};

} // namespace KR
