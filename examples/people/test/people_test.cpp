#include "peopleextractor.hpp"

#include "patience.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krsubscription.hpp>
#include <krvision/krannotations.hpp>

#include <gtest/gtest.h>

#include <filesystem>

namespace {

using KR::test::eventually;

class People : public testing::Test {
protected:
    void show(const std::string& source) {
        camera_ =
            KR::createModule<KR::KRVideoDevice>(broker_, "KRVideoDevice", std::vector<std::string>{source});
        people_ = KR::createModule<PeopleExtractor>(broker_, "People");
    }
    KR::KRAnnotations getSeen() const {
        return KR::KRAnnotations::fromKRValue(memory_.getData("People/Annotations"));
    }

    const boost::shared_ptr<KR::KRBroker> broker_ = KR::KRBroker::create("local:");
    const KR::KRMemoryProxy memory_{broker_};

private:
    KR::KRModuleHandle<KR::KRVideoDevice> camera_;
    KR::KRModuleHandle<PeopleExtractor> people_;
};

TEST_F(People, FindsPedestriansWhereTheyWalk) {
    if (!std::filesystem::exists(KR_CLIP)) {
        GTEST_SKIP() << "scripts/clip fetches the clip of pedestrians " KR_CLIP;
    }
    show(std::string("file:") + KR_CLIP);
    broker_->getProxy("People")->call("subscribe", "test", 100, 0.5F);
    KR::KRAnnotations seen;
    ASSERT_TRUE(eventually([&] {
        seen = getSeen();
        return !seen.boxes.empty();
    }));
    EXPECT_GT(seen.timeStamp, 0);
    for (const auto& box : seen.boxes) {
        EXPECT_EQ(box.label, "person");
        EXPECT_GT(box.score, 0.2F);
        EXPECT_LT(box.score, 1.0F);
        EXPECT_GT(box.bottom - box.top, box.right - box.left); // upright
        EXPECT_LT(box.bottom - box.top, 0.7F);
        EXPECT_GT(box.right, 0.0F);
        EXPECT_LT(box.left, 1.0F);
    }
    EXPECT_TRUE(eventually([&] { return memory_.getDataList("People/CountChanged").size() == 1; }));
    broker_->getProxy("People")->call("unsubscribe", "test");
}

TEST_F(People, FindsNobodyInATestPicture) {
    show("test:smpte");
    broker_->getProxy("People")->call("subscribe", "test", 100, 0.0F); // returns after the first image
    EXPECT_TRUE(getSeen().boxes.empty());
    EXPECT_GT(getSeen().timeStamp, 0);
    EXPECT_EQ(memory_.getData("People/Count").to<int>(), 0);
    broker_->getProxy("People")->call("unsubscribe", "test");
}

} // namespace
