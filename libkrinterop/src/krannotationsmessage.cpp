#include "krinterop/krannotationsmessage.hpp"

#include "krinterop/krjson.hpp"
#include "krplatform/krvalue.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

namespace KR {

namespace {

using Json = nlohmann::ordered_json;

// Values of PointsAnnotation.type.
constexpr int kPoints = 1;
constexpr int kLineLoop = 2;
constexpr int kLineStrip = 3;

// The colours of drawAnnotations().
Json color(int red, int green, int blue) {
    const auto part = [](int byte) { return static_cast<double>(byte) / 255; };
    return {{"r", part(red)}, {"g", part(green)}, {"b", part(blue)}, {"a", 1.0}};
}

/// Makes the message of one image.
class Message {
public:
    Message(const KRAnnotations& annotations, int width, int height)
        : annotations_(annotations), width_(width), height_(height),
          thickness_(std::max(1, (width + 319) / 320)) {
        const std::int64_t second = 1'000'000;
        const std::int64_t time = std::max<std::int64_t>(annotations.timeStamp, 0);
        time_ = {{"sec", time / second}, {"nsec", time % second * 1000}};
    }

    std::string make() {
        for (const KRAnnotations::Box& box : annotations_.boxes) {
            add(kLineLoop,
                {{box.left, box.top}, {box.right, box.top}, {box.right, box.bottom}, {box.left, box.bottom}},
                color(255, 128, 0));
            if (const std::string text = describe(box); !text.empty()) {
                add({box.left, box.top}, text);
            }
        }
        if (!annotations_.points.empty()) {
            add(kPoints, annotations_.points, color(0, 255, 0));
        }
        for (const KRAnnotations::Polyline& line : annotations_.polylines) {
            add(line.closed ? kLineLoop : kLineStrip, line.points, color(0, 192, 255));
        }
        for (const KRAnnotations::Text& text : annotations_.texts) {
            add({text.position.x,
                 text.position.y + static_cast<float>(kFontSize * thickness_) / static_cast<float>(height_)},
                text.text); // the message has the lower left corner
        }
        const Json message = {{"circles", Json::array()}, {"points", points_}, {"texts", texts_}};
        return message.dump(-1, ' ', false, Json::error_handler_t::replace);
    }

private:
    static constexpr int kFontSize = 8; // pixels at a thickness of 1

    static std::string describe(const KRAnnotations::Box& box) {
        std::string text = box.label;
        if (box.identity >= 0) {
            text += (text.empty() ? "#" : " #") + std::to_string(box.identity);
        }
        if (box.score < 1) {
            text += (text.empty() ? "" : " ") + std::to_string(std::lround(std::max(0.0F, box.score) * 100)) +
                    "%";
        }
        return text;
    }
    // In pixels; null if it is not finite.
    static Json scale(float part, int whole) { return toJson(KRValue(part * static_cast<float>(whole))); }
    Json place(const KRAnnotations::Point& point) const {
        return {{"x", scale(point.x, width_)}, {"y", scale(point.y, height_)}};
    }
    void add(int type, const std::vector<KRAnnotations::Point>& points, const Json& outline) {
        Json places = Json::array();
        for (const KRAnnotations::Point& point : points) {
            places.push_back(place(point));
        }
        points_.push_back({{"timestamp", time_},
                           {"type", type},
                           {"points", places},
                           {"outline_color", outline},
                           {"outline_colors", Json::array()},
                           {"fill_color", {{"r", 0.0}, {"g", 0.0}, {"b", 0.0}, {"a", 0.0}}},
                           {"thickness", thickness_}});
    }
    void add(const KRAnnotations::Point& position, const std::string& text) {
        texts_.push_back({{"timestamp", time_},
                          {"position", place(position)},
                          {"text", text},
                          {"font_size", kFontSize * thickness_},
                          {"text_color", color(255, 255, 255)},
                          {"background_color", color(0, 0, 0)}});
    }

    const KRAnnotations& annotations_;
    const int width_;
    const int height_;
    const int thickness_; // as in drawAnnotations(), pixels
    Json time_;
    Json points_ = Json::array();
    Json texts_ = Json::array();
};

} // namespace

std::string_view getAnnotationsSchema() noexcept {
    return R"({
  "title": "foxglove.ImageAnnotations",
  "description": "Array of annotations for a 2D image",
  "type": "object",
  "$defs": {
    "time": {
      "type": "object",
      "title": "time",
      "properties": {"sec": {"type": "integer", "minimum": 0}, "nsec": {"type": "integer", "minimum": 0, "maximum": 999999999}}
    },
    "point": {
      "type": "object",
      "title": "foxglove.Point2",
      "properties": {"x": {"type": "number"}, "y": {"type": "number"}}
    },
    "color": {
      "type": "object",
      "title": "foxglove.Color",
      "properties": {"r": {"type": "number"}, "g": {"type": "number"}, "b": {"type": "number"}, "a": {"type": "number"}}
    }
  },
  "properties": {
    "circles": {
      "type": "array",
      "items": {
        "type": "object",
        "title": "foxglove.CircleAnnotation",
        "properties": {
          "timestamp": {"$ref": "#/$defs/time"},
          "position": {"$ref": "#/$defs/point"},
          "diameter": {"type": "number"},
          "thickness": {"type": "number"},
          "fill_color": {"$ref": "#/$defs/color"},
          "outline_color": {"$ref": "#/$defs/color"}
        }
      }
    },
    "points": {
      "type": "array",
      "items": {
        "type": "object",
        "title": "foxglove.PointsAnnotation",
        "properties": {
          "timestamp": {"$ref": "#/$defs/time"},
          "type": {"type": "integer", "description": "1: points, 2: line loop, 3: line strip, 4: line list"},
          "points": {"type": "array", "items": {"$ref": "#/$defs/point"}},
          "outline_color": {"$ref": "#/$defs/color"},
          "outline_colors": {"type": "array", "items": {"$ref": "#/$defs/color"}},
          "fill_color": {"$ref": "#/$defs/color"},
          "thickness": {"type": "number"}
        }
      }
    },
    "texts": {
      "type": "array",
      "items": {
        "type": "object",
        "title": "foxglove.TextAnnotation",
        "properties": {
          "timestamp": {"$ref": "#/$defs/time"},
          "position": {"$ref": "#/$defs/point"},
          "text": {"type": "string"},
          "font_size": {"type": "number"},
          "text_color": {"$ref": "#/$defs/color"},
          "background_color": {"$ref": "#/$defs/color"}
        }
      }
    }
  }
})";
}

std::string encodeAnnotations(const KRAnnotations& annotations, int width, int height) {
    return Message(annotations, width, height).make();
}

} // namespace KR
