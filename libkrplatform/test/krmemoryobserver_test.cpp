#include "krplatform/krmemoryobserver.hpp"

#include "krplatform/krbroker.hpp"
#include "krplatform/krerror.hpp"
#include "krplatform/krmemoryproxy.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace KR {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

TEST(KRMemoryObserver, IsNotifiedOfEachWriteOnTheWritingThread) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    std::vector<std::string> heard;
    setMemoryObserver(*broker, [&, here = std::this_thread::get_id()](const KRMemoryWrite& write) {
        EXPECT_EQ(std::this_thread::get_id(), here);
        heard.push_back((write.isEvent ? "event " : "data ") + write.name + " " +
                        std::to_string(write.value.to<int>()));
    });
    memory.insertData("a", 1);
    memory.insertData("a", 1);
    memory.raiseEvent("b", 2);
    EXPECT_THAT(heard, ElementsAre("data a 1", "data a 1", "event b 2"));
    setMemoryObserver(*broker, {});
    memory.insertData("a", 3);
    EXPECT_EQ(heard.size(), 3U);
}

TEST(KRMemoryObserver, FindsTheWrittenValueInTheMemory) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    int found = 0;
    setMemoryObserver(*broker,
                      [&](const KRMemoryWrite& write) { found = memory.getData(write.name).to<int>(); });
    memory.insertData("a", 7);
    EXPECT_EQ(found, 7);
}

TEST(KRMemoryObserver, NeedsAMemoryModuleInTheBroker) {
    const auto broker = KRBroker::create("local:?memory=none");
    EXPECT_THAT([&] { setMemoryObserver(*broker, [](const KRMemoryWrite&) {}); },
                ThrowsMessage<KRError>(HasSubstr("the broker runs no memory module")));
}

} // namespace
} // namespace KR
