#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace KR {

/// One camera image: its geometry, where and when it was taken, and a buffer of pixels.
///
/// The buffer is shared by all copies of an image and is in one of three states: none (a null pointer),
/// external (memory of the caller, which the image reads and writes but never frees) or owned (freed with
/// the last copy). The fields are open to the caller. Sizes are products of 32-bit ints, which wrap round
/// on overflow; a size that comes out negative cannot be allocated: std::bad_alloc. Reentrant: one thread
/// uses an image at a time. Copies of one image may be destroyed on different threads.
class KR_EXPORT KRImage {
public:
    /// A region of interest of an image. No operation of the library reads it.
    struct KR_EXPORT ROI {
        /// A rectangle in pixels; all its angles are 0.
        ROI(int x, int y, int w, int h);
        ROI(int x, int y, int w, int h, float leftAngle, float topAngle, float rightAngle, float bottomAngle);

        int x;             ///< left column, pixels
        int y;             ///< top row, pixels
        int w;             ///< width, pixels
        int h;             ///< height, pixels
        float leftAngle;   ///< field of view, radians, as in the image
        float topAngle;    ///< radians
        float rightAngle;  ///< radians
        float bottomAngle; ///< radians
    };

    /// Frees a buffer with array delete, unless it is external. boost::get_deleter finds it in an image's
    /// `data`.
    struct KR_EXPORT deleter {
        bool external;
        std::ptrdiff_t size = -1; ///< bytes of an owned buffer made by the functions below; -1: not known
        void operator()(unsigned char* pointer) const noexcept;
    };

    int width;              ///< pixels
    int height;             ///< pixels
    int nbLayers;           ///< bytes per pixel
    int colorSpace;         ///< code, see krvisiondefinitions.hpp
    std::int64_t timeStamp; ///< capture time, microseconds; -1: not set
    /// `width * height * nbLayers` bytes, row by row without padding; the buffer itself may be larger.
    boost::shared_ptr<unsigned char[]> data;
    signed char cameraId;    ///< which camera took the image
    int allocatedSize;       ///< bytes that the image last sized its buffer for
    int allocatedResolution; ///< resolution code that the buffer was last sized for; -1: a size without code
    int allocatedLayers;     ///< bytes per pixel that the buffer was last sized for
    float leftAngle;         ///< edge of the field of view, radians; positive to the left
    float topAngle;          ///< radians, positive upwards
    float rightAngle;        ///< radians, negative to the right
    float bottomAngle;       ///< radians, negative downwards
    std::vector<ROI> rois;   ///< the caller's; copied with the image
    bool extraFlag;          ///< the caller's; copied with the image

    /// \name Buffer handles, for the field `data`
    /// \throws std::bad_alloc no memory; nothing leaks
    ///@{
    /// No pixels (external), or an owned buffer of no bytes.
    static boost::shared_ptr<unsigned char[]> emptyData(bool external);
    /// An owned buffer of `size` zeros.
    static boost::shared_ptr<unsigned char[]> internalDataZeroInitialized(std::size_t size);
    /// An owned buffer of `size` bytes that hold anything.
    static boost::shared_ptr<unsigned char[]> internalDataUninitialized(std::size_t size);
    /// The caller's own memory: it is never freed here, and must outlive the images that refer to it and
    /// hold as many bytes as their geometry says.
    static boost::shared_ptr<unsigned char[]> externalData(unsigned char* pointer);
    ///@}

    /// An image of a resolution code, 0 to 8, without time stamp.
    /// \param emptyBuffer  true: no pixels until a buffer is attached; false: an owned buffer of zeros
    /// \throws std::invalid_argument "KRImage: invalid colorspace", or else "KRImage: invalid resolution"
    KRImage(int resolution, int colorSpace, bool emptyBuffer, float leftAngle, float topAngle,
            float rightAngle, float bottomAngle);
    /// The same of any size in pixels, which is not checked.
    /// \throws std::invalid_argument "KRImage: invalid colorspace"
    KRImage(int width, int height, int colorSpace, bool emptyBuffer, float leftAngle, float topAngle,
            float rightAngle, float bottomAngle);
    /// Shares the pixels: what is written through one copy shows in the other.
    KRImage(const KRImage&) = default;
    KRImage& operator=(const KRImage&) = default;
    ~KRImage() = default;

    /// A copy with a buffer of its own, owned: `allocatedSize` bytes, or as many as this image's own buffer has
    /// if that is more. They are copied from this image's buffer; an external one must hold `allocatedSize`
    /// bytes. If this image has no pixels, those of the copy hold anything.
    KRImage deepCopy() const;

    /// Whether there is a buffer and it is owned.
    bool ownsData() const noexcept;

    /// Sets width and height from a resolution code, 0 to 8.
    ///
    /// Allocates a new, uninitialised buffer only if the code is greater than `allocatedResolution`. Codes
    /// 7 and 8 are greater than those of larger sizes: after one of them call reallocateDataSize first.
    /// \return false, and nothing has changed: the buffer was of the right size already, but there is none
    /// \throws std::invalid_argument "KRImage: invalid resolution"
    bool setResolution(int resolution);

    /// Sets the colour space and with it the bytes per pixel; the pixels are not converted.
    ///
    /// Allocates a new, uninitialised buffer for `allocatedResolution` if more bytes per pixel are needed
    /// than `allocatedLayers`. The present code is accepted as it is, valid or not.
    /// \return whether there is a buffer, if a new one was needed; otherwise true
    /// \throws std::invalid_argument "KRImage: setColorSpace: invalid color space", nothing has changed; a
    /// larger buffer is needed but `allocatedResolution` is -1: as reallocateDataSize, the colour space is
    /// set by then
    bool setColorSpace(int colorSpace);

    /// Gives the image a new, owned, uninitialised buffer for a resolution code, 0 to 17, at `layers` bytes
    /// per pixel, unless that is `allocatedSize` already. Geometry and colour space stay as they are.
    /// \return whether there is a buffer
    /// \throws std::invalid_argument "KRImage: reallocateDataSize: Weird resolution #" and the code;
    /// nothing has changed
    bool reallocateDataSize(int resolution, int layers);

    /// The image as it travels between modules: an array of width, height, nbLayers, colorSpace, seconds
    /// and remaining microseconds of the time stamp, the pixels as a binary, cameraId, and the left, top,
    /// right and bottom angle. The pixels (`width * height * nbLayers` bytes, which the buffer must hold)
    /// are copied once.
    KRValue toKRValue() const;

    /// A new image, owned by the caller, from an image value; its pixels are copied into an owned buffer.
    ///
    /// Believes what the value says of itself: its binary holds width * height * nbLayers bytes, and
    /// nbLayers is not greater than the colour space's. Whoever takes values from elsewhere checks them
    /// before.
    /// \return null, after an error in the log, if the value is no array of at least 12 elements; later
    /// ones are ignored
    /// \throws std::invalid_argument "KRImage: invalid colorspace"
    /// \throws KRError an element is of another type
    static KRImage* fromKRValue(const KRValue& value);

    /// \name Pixel conversions
    ///
    /// They treat the pixels as one run of N = width * height, whatever its rows: pair by pair, so that the
    /// last pixel of an odd number stays as it is, in source and destination. YUV422 has 4 bytes per pair,
    /// Y0 U Y1 V; BGR has 3 per pixel. Coefficients are those of ITU-R BT.601, Y from 16 to 235, U and V
    /// centred on 128. Reentrant. They run on the widest vector instructions that the processor has; the
    /// result is the same.
    ///@{

    /// Makes this image's pixels of a BGR frame of the caller's, `3 * rows * cols` bytes.
    ///
    /// U and V of a pair are those of its first pixel. An image of another size or of other than 2 layers
    /// is given a new buffer, if it owns the one that it has; a colour space is never set here.
    /// \param rows  height in pixels: it comes first, deliberate
    /// \param cols  width in pixels
    /// \return false, after "External buffer not compatible." in the log, if there is no buffer to write
    /// to, or an external one for another size; nothing has changed then
    bool computeYUV422imageFromBGR(int rows, int cols, char* bgr);

    /// Writes this YUV422 image as BGR.
    /// \param out  `3 * N` bytes of the caller's, written to although declared const
    /// \return false, after "Input image is not a YUV422 image." in the log, if the colour space is not
    /// kYUV422ColorSpace; nothing is written then
    bool computeBGRimageFromYUV422(const unsigned char* out) const;

    /// Writes this YUV422 image as three planes of N bytes, Y, U and V; each U and V twice, for both
    /// pixels.
    /// \param out  `3 * N` bytes of the caller's, written to although declared const
    /// \return as computeBGRimageFromYUV422
    bool computeYYYUUUVVVimageFromYUV422(const unsigned char* out) const;

    /// Writes this YUV422 image as a plane of N bytes Y, and one of `N / 2` bytes each for U and V.
    /// \param out  `2 * N` bytes of the caller's, written to although declared const
    /// \return as computeBGRimageFromYUV422
    bool computeYYYYUUVVimageFromYUV422(const unsigned char* out) const;
    ///@}

    /// \name Files
    ///
    /// `path` is the whole path, extension included. The oxi format: docs/oxi.md. They throw nothing but what
    /// readFile says, and log nothing else.
    ///@{

    /// Writes the image, ROIs and `extraFlag` excepted, as an oxi file of version 1, which replaces what is
    /// there.
    /// \return false: the file cannot be opened or written; the image has no buffer for its geometry, nothing
    /// has been written then
    bool writeFile(const char* path) const;

    /// Reads an oxi file of version 0 or 1.
    ///
    /// If the file has the image's width, height and layers, only the pixels change: they are read into the
    /// buffer that is there, external or owned, and the rest of the file's header is dropped. An image of
    /// another geometry must own its buffer; it is given a new one for the pixels, and all of the header, of
    /// which nothing is checked. `allocatedSize`, `allocatedResolution` and `allocatedLayers` stay as they
    /// are in either case. A file of version 0 has the default field of view.
    /// \return false: the file cannot be opened, or ends early; after "readFile: Error while reading image:
    /// not an .oxi format" in the log: another magic; after "readFile: external buffer not compatible.":
    /// another geometry, and a buffer that is not owned; without a line: the image's geometry, but no buffer
    /// for it; another one of more than 2560x1920 pixels of 12 bytes, and fewer in the file. The image has
    /// changed only if the file ends within the pixels: then it has the header, and the pixels that there are
    /// \throws std::bad_alloc no memory for the pixels, or a size that came out negative; nothing has changed
    bool readFile(const char* path);

    /// Writes the pixels as a binary PPM picture for viewing: one layer as grey, two (YUV422) as they are
    /// with Y, U and V for red, green and blue, three in the order in which they are; of any other number,
    /// the header alone. The last of an odd number of pixels in YUV422 is left out.
    /// \return 1, or what failed: -1 opening the file, -2 writing the header, -3 writing the pixels of three
    /// layers, -4 of two, -5 of one (they also fail if there is no buffer for them), -6 closing the file
    int savePPM(const char* path) const;
    ///@}

    /// All fields but the ROIs, and the first 16 bytes of the buffer, which must hold as many, for people
    /// to read. Lines of "name: value"; the last one is not ended.
    std::string toString() const;
};

/// Converts one pixel in place: R to where Y was, G to where U was, B to where V was.
///
/// In single precision, from the same colour system as KRImage's conversions, but with coefficients of
/// three decimals; the results may differ from theirs by a step or two. Thread-safe.
KR_EXPORT void computeRgbFromYuv(unsigned char* y, unsigned char* u, unsigned char* v);

} // namespace KR
