#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace KR {

class KRImage;

/// What a module saw in one image: boxes, points, polylines and texts.
///
/// Coordinates are relative to the image: 0, 0 is its upper left corner and 1, 1 its lower right one, whatever its
/// size. They may lie outside, as those of an object that the edge of the image cuts. Reentrant.
///
/// By convention a vision extractor writes its annotations under the memory key "NAME/Annotations" with every image, an
/// empty list included, so that viewers show what it sees now.
struct KR_EXPORT KRAnnotations {
    /// A point in the image.
    struct Point {
        float x = 0; ///< fraction of the width, from the left
        float y = 0; ///< fraction of the height, from the top
        friend bool operator==(const Point&, const Point&) = default;
    };
    /// A rectangle around an object.
    struct Box {
        float left = 0;    ///< edge, as Point::x
        float top = 0;     ///< edge, as Point::y
        float right = 0;   ///< not less than left
        float bottom = 0;  ///< not less than top
        std::string label; ///< kind of object, UTF-8; may be empty
        float score = 1;   ///< confidence, 0 to 1
        int identity = -1; ///< the same for one object in consecutive images; -1 if it is not tracked
        friend bool operator==(const Box&, const Box&) = default;
    };
    /// A line through points.
    struct Polyline {
        std::vector<Point> points; ///< at least two
        bool closed = false;       ///< a line joins the last point and the first
        friend bool operator==(const Polyline&, const Polyline&) = default;
    };
    /// A text in the image.
    struct Text {
        Point position;   ///< upper left corner of the first character
        std::string text; ///< UTF-8
        friend bool operator==(const Text&, const Text&) = default;
    };

    int camera = 0;                  ///< index of the camera at the camera service
    std::int64_t timeStamp = -1;     ///< of the image, microseconds since the Unix epoch; -1: not set
    std::vector<Box> boxes;          ///< objects
    std::vector<Point> points;       ///< single points
    std::vector<Polyline> polylines; ///< outlines and paths
    std::vector<Text> texts;         ///< any other text

    KRAnnotations() = default;
    /// No annotations yet, for an image: takes over its camera and time stamp.
    explicit KRAnnotations(const KRImage& image);

    /// The value that travels between modules, an array of eight elements:
    ///
    /// | element | what |
    /// |---|---|
    /// | 0 | int: version of this layout, 1 |
    /// | 1 | int: camera |
    /// | 2, 3 | ints: seconds and remaining microseconds of the time stamp |
    /// | 4 | array of boxes, each [left, top, right, bottom, label, score, identity] |
    /// | 5 | array of points, each [x, y] |
    /// | 6 | array of polylines, each [closed, x0, y0, x1, y1, ...] |
    /// | 7 | array of texts, each [x, y, text] |
    KRValue toKRValue() const;

    /// Reads such a value. Elements beyond those of the layout are ignored, for later versions.
    /// \throws KRError  not of this layout; a coordinate or score that is not a number; a box whose right edge is left
    /// of its left one, or its lower edge above its upper one; a polyline of fewer than two points. The text
    /// names the element
    static KRAnnotations fromKRValue(const KRValue& value);

    friend bool operator==(const KRAnnotations&, const KRAnnotations&) = default;
};

/// Draws annotations into an image: boxes with label, identity and score, points as crosses, polylines, and texts.
///
/// Clips to the image. Lines and characters grow with the image: one pixel wide per 320 pixels of
/// its width, rounded up. Characters beyond ASCII are drawn as question marks.
/// \param image  luma, YUV422, RGB, BGR or BGRx, with a buffer for its geometry
/// \throws KRError  another colour space; no buffer, or an owned one that is too small; nothing is drawn
KR_EXPORT void drawAnnotations(KRImage& image, const KRAnnotations& annotations);

} // namespace KR
