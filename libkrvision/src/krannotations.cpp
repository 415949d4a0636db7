#include "krvision/krannotations.hpp"

#include "krplatform/krerror.hpp"
#include "krvision/krimage.hpp"

#include <cmath>

namespace KR {

namespace {

constexpr int kVersion = 1;
constexpr std::int64_t kMicrosecondsPerSecond = 1000000;

[[noreturn]] void refuse(const std::string& what) {
    throw KRError("KRAnnotations", "fromKRValue", what);
}

float readNumber(const KRValue& list, std::size_t index, const std::string& where) {
    const auto number = list[index].to<float>();
    if (!std::isfinite(number)) {
        refuse(where + ", element " + std::to_string(index) + ", is not a finite number");
    }
    return number;
}

KRAnnotations::Box readBox(const KRValue& value, const std::string& where) {
    KRAnnotations::Box box{readNumber(value, 0, where), readNumber(value, 1, where),
                           readNumber(value, 2, where), readNumber(value, 3, where),
                           value[4].to<std::string>(),  readNumber(value, 5, where),
                           value[6].to<int>()};
    if (box.right < box.left || box.bottom < box.top) {
        refuse(where + " has its right edge left of its left edge, or its bottom edge above its top edge");
    }
    return box;
}

KRAnnotations::Point readPoint(const KRValue& value, const std::string& where) {
    return {readNumber(value, 0, where), readNumber(value, 1, where)};
}

KRAnnotations::Polyline readPolyline(const KRValue& value, const std::string& where) {
    if (value.getSize() < 5 || value.getSize() % 2 == 0) {
        refuse(where + " has " + std::to_string(value.getSize()) +
               " elements; expected closed, and x and y of two points or more");
    }
    KRAnnotations::Polyline line;
    line.closed = value[0].to<bool>();
    for (std::size_t i = 1; i < value.getSize(); i += 2) {
        line.points.push_back({readNumber(value, i, where), readNumber(value, i + 1, where)});
    }
    return line;
}

KRAnnotations::Text readText(const KRValue& value, const std::string& where) {
    return {readPoint(value, where), value[2].to<std::string>()};
}

// Reads the list in element `index` of the value; errors name the list's element.
template <class T>
std::vector<T> readList(const KRValue& value, std::size_t index, const char* name,
                        T (*read)(const KRValue&, const std::string&)) {
    const KRValue& list = value[index];
    std::vector<T> result;
    result.reserve(list.getSize());
    for (std::size_t i = 0; i < list.getSize(); ++i) {
        const std::string where = std::string(name).append(" ").append(std::to_string(i));
        try {
            result.push_back(read(list[i], where));
        } catch (const KRError& error) {
            if (error.getDescription().starts_with(where)) {
                throw;
            }
            refuse(where + ": " + error.getDescription());
        }
    }
    return result;
}

} // namespace

KRAnnotations::KRAnnotations(const KRImage& image) : camera(image.cameraId), timeStamp(image.timeStamp) {}

KRValue KRAnnotations::toKRValue() const {
    std::vector<KRValue> boxValues;
    boxValues.reserve(boxes.size());
    for (const Box& box : boxes) {
        boxValues.push_back(
            KRValue::array(box.left, box.top, box.right, box.bottom, box.label, box.score, box.identity));
    }
    std::vector<KRValue> pointValues;
    pointValues.reserve(points.size());
    for (const Point& point : points) {
        pointValues.push_back(KRValue::array(point.x, point.y));
    }
    std::vector<KRValue> polylineValues;
    polylineValues.reserve(polylines.size());
    for (const Polyline& line : polylines) {
        std::vector<KRValue> numbers{KRValue(line.closed)};
        for (const Point& point : line.points) {
            numbers.emplace_back(point.x);
            numbers.emplace_back(point.y);
        }
        polylineValues.emplace_back(std::move(numbers));
    }
    std::vector<KRValue> textValues;
    textValues.reserve(texts.size());
    for (const Text& text : texts) {
        textValues.push_back(KRValue::array(text.position.x, text.position.y, text.text));
    }
    return KRValue::array(kVersion, camera, static_cast<std::int32_t>(timeStamp / kMicrosecondsPerSecond),
                          static_cast<std::int32_t>(timeStamp % kMicrosecondsPerSecond), std::move(boxValues),
                          std::move(pointValues), std::move(polylineValues), std::move(textValues));
}

KRAnnotations KRAnnotations::fromKRValue(const KRValue& value) {
    if (!value.isArray() || value.getSize() < 8) {
        refuse("the value is not an array of at least 8 elements");
    }
    if (const int version = value[0].to<int>(); version != kVersion) {
        refuse("the layout has version " + std::to_string(version) + "; version " + std::to_string(kVersion) +
               " is supported");
    }
    KRAnnotations annotations;
    annotations.camera = value[1].to<int>();
    annotations.timeStamp = value[2].to<int>() * kMicrosecondsPerSecond + value[3].to<int>();
    annotations.boxes = readList<Box>(value, 4, "box", readBox);
    annotations.points = readList<Point>(value, 5, "point", readPoint);
    annotations.polylines = readList<Polyline>(value, 6, "polyline", readPolyline);
    annotations.texts = readList<Text>(value, 7, "text", readText);
    return annotations;
}

} // namespace KR
