#pragma once

#include <krplatform/krmodule.hpp>
#include <krplatform/krvalue.hpp>

#include <atomic>
#include <string>

/// A module that subscribes to a motion extractor in one of two ways.
class Client : public KR::KRModule {
public:
    Client(boost::shared_ptr<KR::KRBroker> broker, const std::string& name, const std::string& extractor);

    /// Subscribes to the extractor itself.
    void subscribe(int period, float precision);
    /// Subscribes to an event, which subscribes this module to the extractor that declared it.
    void subscribeToEvent(const std::string& event, int period, float precision);
    void updatePeriod(int period);
    void unsubscribe();

    int getEventCount() const { return events_; }
    const std::string& getExtractor() const { return extractor_; }

private:
    void onEvent(const std::string& event, const KR::KRValue& value);

    const std::string extractor_;
    std::string event_; // empty if subscribed directly
    bool subscribed_ = false;
    std::atomic<int> events_ = 0;
};
