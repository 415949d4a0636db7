#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <string>

namespace KR {

// What the camera service reports about itself. Each travels as an array of the fields, in their order.
// fromKRValue() reads one; it throws a KRError if there are fewer elements, or one of another type.

/// One camera of the service.
struct KR_EXPORT KRCameraInfo {
    int camera = 0;     ///< index
    std::string source; ///< as configured: "v4l2:/dev/video0"
    int model = 0;      ///< as getCameraModel() answers
    /// "closed": no subscribers; "opening": no image yet; "open"; "failed": it is being opened again.
    std::string state;
    std::string failure; ///< why it failed; empty otherwise
    int width = 0;       ///< of the newest image as delivered by the camera; 0 before the first one
    int height = 0;      ///< pixels
    int subscribers = 0; ///< number of subscriptions

    /// The value that travels between modules.
    KRValue toKRValue() const;
    /// Reads such a value. \throws KRError  it is not one
    static KRCameraInfo fromKRValue(const KRValue& value);
};

/// A setting of a camera's picture that can be changed while the camera runs.
struct KR_EXPORT KRCameraControl {
    int id = 0;           ///< number of the V4L2 control of the same meaning
    std::string name;     ///< for people
    int minimum = 0;      ///< smallest value
    int maximum = 0;      ///< largest value
    int step = 1;         ///< distance of values
    int defaultValue = 0; ///< value after a reset
    int value = 0;        ///< value now

    /// The value that travels between modules.
    KRValue toKRValue() const;
    /// Reads such a value. \throws KRError  it is not one
    static KRCameraControl fromKRValue(const KRValue& value);
};

/// One subscription with its settings.
struct KR_EXPORT KRSubscriberInfo {
    std::string id;     ///< identifier
    int camera = 0;     ///< index of the camera
    int resolution = 0; ///< code
    int colorSpace = 0; ///< code
    int frameRate = 0;  ///< images per second

    /// The value that travels between modules.
    KRValue toKRValue() const;
    /// Reads such a value. \throws KRError  it is not one
    static KRSubscriberInfo fromKRValue(const KRValue& value);
};

/// Distribution of a duration in milliseconds; 0 without a measurement.
struct KRDurations {
    float median_ms = 0; ///< half of them are shorter
    float p99_ms = 0;    ///< 99th percentile
    float max_ms = 0;    ///< the longest one
};

/// What a subscription has received since it began. Median and p99 are at most 3 % too great.
struct KR_EXPORT KRSubscriptionStatistics {
    std::string id;    ///< identifier
    int camera = 0;    ///< index of the camera
    int delivered = 0; ///< images fetched
    int missed = 0;    ///< images of the camera that were not fetched
    // These travel as three elements each.
    KRDurations age;      ///< from capture to delivery
    KRDurations interval; ///< from delivery to delivery
    KRDurations hold;     ///< from delivery to release

    /// The value that travels between modules.
    KRValue toKRValue() const;
    /// Reads such a value. \throws KRError  it is not one
    static KRSubscriptionStatistics fromKRValue(const KRValue& value);
};

} // namespace KR
