#include "krplatform/krcamerainfo.hpp"

namespace KR {

namespace {

/// Reads the elements of an array one after the other.
class Reader {
public:
    explicit Reader(const KRValue& value) : value_(value) {}

    template <class T>
    void read(T& field) {
        field = value_[next_++].to<T>();
    }
    void read(KRDurations& durations) {
        read(durations.median_ms);
        read(durations.p99_ms);
        read(durations.max_ms);
    }
    template <class... T>
    void operator()(T&... fields) {
        (read(fields), ...);
    }

private:
    const KRValue& value_;
    std::size_t next_ = 0;
};

} // namespace

KRValue KRCameraInfo::toKRValue() const {
    return KRValue::array(camera, source, model, state, failure, width, height, subscribers);
}

KRCameraInfo KRCameraInfo::fromKRValue(const KRValue& value) {
    KRCameraInfo info;
    Reader{value}(info.camera, info.source, info.model, info.state, info.failure, info.width, info.height,
                  info.subscribers);
    return info;
}

KRValue KRCameraControl::toKRValue() const {
    return KRValue::array(id, name, minimum, maximum, step, defaultValue, value);
}

KRCameraControl KRCameraControl::fromKRValue(const KRValue& value) {
    KRCameraControl control;
    Reader{value}(control.id, control.name, control.minimum, control.maximum, control.step,
                  control.defaultValue, control.value);
    return control;
}

KRValue KRSubscriberInfo::toKRValue() const {
    return KRValue::array(id, camera, resolution, colorSpace, frameRate);
}

KRSubscriberInfo KRSubscriberInfo::fromKRValue(const KRValue& value) {
    KRSubscriberInfo info;
    Reader{value}(info.id, info.camera, info.resolution, info.colorSpace, info.frameRate);
    return info;
}

KRValue KRSubscriptionStatistics::toKRValue() const {
    return KRValue::array(id, camera, delivered, missed, age.median_ms, age.p99_ms, age.max_ms,
                          interval.median_ms, interval.p99_ms, interval.max_ms, hold.median_ms, hold.p99_ms,
                          hold.max_ms);
}

KRSubscriptionStatistics KRSubscriptionStatistics::fromKRValue(const KRValue& value) {
    KRSubscriptionStatistics statistics;
    Reader{value}(statistics.id, statistics.camera, statistics.delivered, statistics.missed, statistics.age,
                  statistics.interval, statistics.hold);
    return statistics;
}

} // namespace KR
