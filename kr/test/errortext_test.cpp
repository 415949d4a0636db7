#include "tool/errortext.hpp"

#include <gtest/gtest.h>

namespace KR::tool {
namespace {

TEST(KrErrorText, HasModuleMethodAndDescription) {
    EXPECT_EQ(describe(KRError("KRMemory", "getData", "there is no data named x")),
              "KRMemory.getData: there is no data named x");
}

TEST(KrErrorText, AnExplanationInPlaceOfTheMethodIsPartOfTheText) {
    const KRError error("KRExtractor", "getMyPeriod: unknown module name: ", "nobody");
    EXPECT_EQ(describe(error), "KRExtractor: getMyPeriod: unknown module name: nobody");
    EXPECT_EQ(describeFailedCall("KRMotion", "getMyPeriod", error),
              "KRMotion.getMyPeriod: unknown module name: nobody");
    EXPECT_EQ(describeFailedCall("KRMotion", "unsubscribe",
                                 KRError("KRExtractor", "received unsubscribe from a stranger", "nobody")),
              "KRMotion.unsubscribe: received unsubscribe from a stranger: nobody");
}

TEST(KrErrorText, NamesTheFailedCallAndTheOriginOfTheErrorOnceEach) {
    EXPECT_EQ(describeFailedCall("KRMotion", "subscribe", KRError("KRMotion", "subscribe", "shutting down")),
              "KRMotion.subscribe: shutting down");
    EXPECT_EQ(describeFailedCall("KRMotion", "subscribe",
                                 KRError("KRVideoDevice", "subscribeCamera", "there is no camera 7")),
              "KRMotion.subscribe: KRVideoDevice.subscribeCamera: there is no camera 7");
}

} // namespace
} // namespace KR::tool
