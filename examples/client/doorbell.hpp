#pragma once

#include <krplatform/krclock.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krmutex.hpp>

#include <functional>
#include <optional>
#include <string>

/// Rings when another module raises an event, but not twice within a pause.
///
/// Needs no camera and no thread. The extractor that raises the event runs because of this subscription, which the
/// memory module keeps, even for an extractor that starts later or restarts. The memory key "NAME/Rings" has the
/// number of rings.
class Doorbell : public KR::KRModule {
public:
    /// Function that rings, on a call thread; gets the event and its value.
    using Ring = std::function<void(const std::string& event, const KR::KRValue& value)>;

    /// \param event     event to wait for, of any module
    /// \param pause_ms  least time between two rings, milliseconds
    /// \throws KRError  the name is taken; there is no memory module
    Doorbell(boost::shared_ptr<KR::KRBroker> broker, const std::string& name, const std::string& event,
             int pause_ms, Ring ring);

    void onEvent(const std::string& event, const KR::KRValue& value);
    /// The memory module calls this if events arrive faster than onEvent() handles them.
    void onEventsLost(const std::string& event, int count);

private:
    bool isTimeToRing();

    const std::chrono::milliseconds pause_;
    const Ring ring_;
    KR::KRMemoryProxy memory_;

    KR::KRMutex mutex_;
    std::optional<KR::KRClock::TimePoint> last_ KR_GUARDED_BY(mutex_); // ring
    int rings_ KR_GUARDED_BY(mutex_) = 0;
};
