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
/// All copies of an image share its buffer, which is in one of three states: none (a null pointer), external
/// (the caller's memory, which the image reads and writes but never frees) or owned (freed with the last
/// copy). Callers may change the fields. Sizes are products of 32-bit ints that wrap on overflow; allocating
/// a negative size throws std::bad_alloc. Reentrant: one thread uses an image at a time. Copies of one image
/// may be destroyed on different threads.
class KR_EXPORT KRImage {
public:
    /// A region of interest of an image. No operation of the library reads it.
    struct KR_EXPORT ROI {
        /// A rectangle in pixels; all its angles are 0.
        ROI(int x, int y, int w, int h);
        /// A rectangle in pixels with its field of view in radians.
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

    /// Frees a buffer with array delete unless it is external. boost::get_deleter finds it in an image's `data`.
    struct KR_EXPORT deleter {
        bool external;            ///< whether the pointer is the caller's
        std::ptrdiff_t size = -1; ///< bytes of an owned buffer made by the functions below; -1: unknown
        /// Frees an owned buffer.
        void operator()(unsigned char* pointer) const noexcept;
    };

    int width;              ///< pixels
    int height;             ///< pixels
    int nbLayers;           ///< bytes per pixel
    int colorSpace;         ///< code, see krvisiondefinitions.hpp
    std::int64_t timeStamp; ///< capture time, microseconds; -1: not set
    /// `width * height * nbLayers` bytes, row by row without padding; the buffer itself may be larger.
    boost::shared_ptr<unsigned char[]> data;
    signed char cameraId;    ///< the camera that took the image
    int allocatedSize;       ///< bytes for which the image last sized its buffer
    int allocatedResolution; ///< resolution code for which the buffer was last sized; -1: the size has no code
    int allocatedLayers;     ///< bytes per pixel for which the buffer was last sized
    float leftAngle;         ///< edge of the field of view, radians; positive to the left
    float topAngle;          ///< radians, positive upwards
    float rightAngle;        ///< radians, negative to the right
    float bottomAngle;       ///< radians, negative downwards
    std::vector<ROI> rois;   ///< for the caller; copied with the image
    bool extraFlag;          ///< for the caller; copied with the image

    /// \name Buffer handles, for the field `data`
    /// \throws std::bad_alloc no memory; nothing leaks
    ///@{
    /// No pixels (external), or an owned buffer of no bytes.
    static boost::shared_ptr<unsigned char[]> emptyData(bool external);
    /// An owned buffer of `size` zeros.
    static boost::shared_ptr<unsigned char[]> internalDataZeroInitialized(std::size_t size);
    /// An owned buffer of `size` uninitialised bytes.
    static boost::shared_ptr<unsigned char[]> internalDataUninitialized(std::size_t size);
    /// The caller's memory, never freed here. It must outlive the images that refer to it and hold
    /// `width * height * nbLayers` bytes of each.
    static boost::shared_ptr<unsigned char[]> externalData(unsigned char* pointer);
    ///@}

    /// An image of a resolution code, 0 to 8, without a time stamp.
    /// \param emptyBuffer  true: no pixels until a buffer is attached; false: an owned buffer of zeros
    /// \throws std::invalid_argument "KRImage: invalid colorspace", or else "KRImage: invalid resolution"
    KRImage(int resolution, int colorSpace, bool emptyBuffer, float leftAngle, float topAngle,
            float rightAngle, float bottomAngle);
    /// The same for any size in pixels, unchecked.
    /// \throws std::invalid_argument "KRImage: invalid colorspace"
    KRImage(int width, int height, int colorSpace, bool emptyBuffer, float leftAngle, float topAngle,
            float rightAngle, float bottomAngle);
    /// Shares the pixels: writing through one copy changes the other.
    KRImage(const KRImage&) = default;
    /// Shares the other image's pixels.
    KRImage& operator=(const KRImage&) = default;
    ~KRImage() = default;

    /// A copy with its own, owned buffer: `allocatedSize` bytes, or as many as this image's owned buffer has if
    /// that is more, copied from this image's buffer. An external buffer must hold `allocatedSize` bytes. If this
    /// image has no pixels, those of the copy are uninitialised.
    KRImage deepCopy() const;

    /// Whether there is a buffer and it is owned.
    bool ownsData() const noexcept;

    /// Sets width and height from a resolution code, 0 to 8.
    ///
    /// Allocates a new, uninitialised buffer only if the code is greater than `allocatedResolution`. Codes
    /// 7 and 8 are greater than those of larger sizes: after one of them call reallocateDataSize first.
    /// \return false if `allocatedSize` was right already but there is no buffer; nothing has changed then
    /// \throws std::invalid_argument "KRImage: invalid resolution"
    bool setResolution(int resolution);

    /// Sets the colour space and with it the bytes per pixel; the pixels are not converted.
    ///
    /// Allocates a new, uninitialised buffer for `allocatedResolution` if more bytes per pixel are needed
    /// than `allocatedLayers`. The current code is accepted unchecked.
    /// \return whether there is a buffer, if a new one was needed; otherwise true
    /// \throws std::invalid_argument "KRImage: setColorSpace: invalid color space", nothing has changed; as
    /// reallocateDataSize if a larger buffer is needed but `allocatedResolution` is -1, the colour space is set
    /// by then
    bool setColorSpace(int colorSpace);

    /// Gives the image a new, owned, uninitialised buffer for a resolution code, 0 to 17, at `layers` bytes
    /// per pixel, unless that is `allocatedSize` already. Geometry and colour space stay as they are.
    /// \return whether there is a buffer
    /// \throws std::invalid_argument "KRImage: reallocateDataSize: Weird resolution #" and the code;
    /// nothing has changed
    bool reallocateDataSize(int resolution, int layers);

    /// The form in which images travel between modules: an array of width, height, nbLayers, colorSpace, seconds
    /// and remaining microseconds of the time stamp, the pixels as a binary, cameraId, and the left, top,
    /// right and bottom angle. The pixels (`width * height * nbLayers` bytes, which the buffer must hold)
    /// are copied once.
    KRValue toKRValue() const;

    /// Makes an image, owned by the caller, from an image value; the pixels are copied into an owned buffer.
    ///
    /// Trusts the value: its binary must hold width * height * nbLayers bytes, and nbLayers must not exceed the
    /// colour space's. Check values from elsewhere first, as KRVideoDeviceProxy does.
    /// \return null, after an error in the log, if the value is not an array of at least 12 elements; any
    /// more are ignored
    /// \throws std::invalid_argument "KRImage: invalid colorspace"
    /// \throws KRError an element is of another type
    static KRImage* fromKRValue(const KRValue& value);

    /// \name Pixel conversions
    ///
    /// They treat the pixels as one run of N = width * height, regardless of rows, and convert pair by pair: if
    /// N is odd, the last pixel is neither read nor written. YUV422 has 4 bytes per pair, Y0 U Y1 V; BGR has 3
    /// per pixel. Coefficients are those of ITU-R BT.601, Y from 16 to 235, U and V centred on 128. Reentrant.
    /// They use the widest vector instructions of the processor, with the same result on all.
    ///@{

    /// Converts the caller's BGR frame of `3 * rows * cols` bytes into this image's pixels.
    ///
    /// U and V of a pair are those of its first pixel. An image of another size, or with other than 2 layers,
    /// gets a new buffer if it owns its present one. The colour space stays as it is.
    /// \param rows  height in pixels: it comes first, deliberate
    /// \param cols  width in pixels
    /// \return false, after "External buffer not compatible." in the log, if there is no buffer, or an
    /// external one for another size; nothing has changed then
    bool computeYUV422imageFromBGR(int rows, int cols, char* bgr);

    /// Writes this YUV422 image as BGR.
    /// \param out  the caller's `3 * N` bytes, written to although declared const
    /// \return false, after "Input image is not a YUV422 image." in the log, if the colour space is not
    /// kYUV422ColorSpace; nothing is written then
    bool computeBGRimageFromYUV422(const unsigned char* out) const;

    /// Writes this YUV422 image as three planes of N bytes, Y, U and V; each U and V twice, for both pixels.
    /// \param out  the caller's `3 * N` bytes, written to although declared const
    /// \return as computeBGRimageFromYUV422
    bool computeYYYUUUVVVimageFromYUV422(const unsigned char* out) const;

    /// Writes this YUV422 image as a plane of N bytes Y, and one of `N / 2` bytes each for U and V.
    /// \param out  the caller's `2 * N` bytes, written to although declared const
    /// \return as computeBGRimageFromYUV422
    bool computeYYYYUUVVimageFromYUV422(const unsigned char* out) const;
    ///@}

    /// \name Files
    ///
    /// `path` is the whole path, extension included. The oxi format: docs/oxi.md. They throw and log only as
    /// described here.
    ///@{

    /// Writes the image, except the ROIs and `extraFlag`, as an oxi file of version 1 that replaces any file of
    /// that name.
    /// \return false: the file cannot be opened or written; the image has no buffer for its geometry, and nothing
    /// has been written
    bool writeFile(const char* path) const;

    /// Reads an oxi file of version 0 or 1.
    ///
    /// If the file has the image's width, height and layers, only the pixels change: they are read into the
    /// present buffer, external or owned, and the rest of the file's header is dropped. Otherwise the image must
    /// own its buffer; it gets a new one for the pixels, and the file's whole header. `allocatedSize`,
    /// `allocatedResolution` and `allocatedLayers` never change. A file of version 0 has the default field of view.
    ///
    /// The header is taken unchecked, so a file from elsewhere needs checking first; readOxi
    /// (<krvision/kroxifile.hpp>) does all of it. In particular, the size of the buffer is the low 32 bits of
    /// width * height * layers: a file of 65536x65536 pixels gives an image of that geometry with a buffer of no
    /// bytes, and a caller that loops over its pixels leaves the buffer. Before using the pixels, check that width,
    /// height and layers are positive, that their product computed in 64 bits is at most 2147483647, that the colour
    /// space is valid and that the layers are those of the colour space.
    /// \return false:
    /// - the file cannot be opened, or ends early;
    /// - it is not an oxi file; logs "readFile: Error while reading image: not an .oxi format";
    /// - another geometry, and a buffer that the image does not own; logs "readFile: external buffer not
    ///   compatible.";
    /// - the image's geometry, but the image has no buffer for it;
    /// - another geometry of more than 2560x1920 pixels of 12 bytes, and fewer in the file.
    /// The image has changed only if the file ends within the pixels: it then has the header and the pixels that the
    /// file has.
    /// \throws std::bad_alloc no memory for the pixels, or their size is negative; nothing has changed
    bool readFile(const char* path);

    /// Writes the pixels as a binary PPM picture for viewing: one layer as grey; two (YUV422) unconverted, with Y,
    /// U and V as red, green and blue; three in their stored order; with any other number, the header alone. If the
    /// number of pixels in YUV422 is odd, the last one has no V, and its U stands for both.
    /// \return 1, or what failed: -1 opening the file, -2 writing the header, -3 writing the pixels of three
    /// layers, -4 of two, -5 of one (they also fail without a buffer for the pixels), -6 closing the file
    int savePPM(const char* path) const;
    ///@}

    /// All fields except the ROIs, and the first 16 bytes of the buffer, which must hold that many, in lines of
    /// "name: value"; the last line has no end. The camera is one raw character.
    std::string toString() const;
};

/// Converts one pixel in place: R to where Y was, G to where U was, B to where V was.
///
/// In single precision and for the same colour system as KRImage's conversions, but with coefficients of three
/// decimals: results may differ from theirs by a step or two. Thread-safe.
KR_EXPORT void computeRgbFromYuv(unsigned char* y, unsigned char* u, unsigned char* v);

} // namespace KR
