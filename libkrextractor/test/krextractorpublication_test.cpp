#include "recordingextractor.hpp"

#include "krplatform/krmemoryproxy.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

namespace KR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kSubscribeDescription =
    "Subscribes to the extractor. This causes the extractor to start writing information to memory using the "
    "keys "
    "described by getOutputNames(). These can be accessed in memory using KRMemory.getData(\"keyName\"). In "
    "many cases "
    "you can avoid calling subscribe on the extractor by just calling KRMemory.subscribeToEvent() supplying "
    "a callback "
    "method. This will automatically subscribe to the extractor for you.";

class KRExtractorPublication : public ::testing::Test {
protected:
    boost::shared_ptr<KRBroker> broker = KRBroker::create("local:");
    KRModuleHandle<RecordingExtractor> extractor = createModule<RecordingExtractor>(broker, "Faces");
    boost::shared_ptr<KRProxy> proxy = broker->getProxy("Faces");
    KRMemoryProxy memory{broker};
};

struct Row {
    std::string signature;
    std::string description;
    std::vector<std::pair<std::string, std::string>> parameters;
    std::pair<std::string, std::string> result;
};

TEST_F(KRExtractorPublication, TheMethodsAreListedAsPublishedInOrder) {
    const std::vector<Row> rows{
        {"subscribe(string name, int period, float precision)",
         kSubscribeDescription,
         {{"name", "Name of the module which subscribes."},
          {"period", "Refresh period (in milliseconds) if relevant."},
          {"precision", "Precision of the extractor if relevant."}},
         {}},
        {"subscribe(string name)",
         kSubscribeDescription,
         {{"name", "Name of the module which subscribes."}},
         {}},
        {"unsubscribe(string name)",
         "Unsubscribes from the extractor.",
         {{"name", "Name of the module which had subscribed."}},
         {}},
        {"updatePeriod(string name, int period)",
         "Updates the period if relevant.",
         {{"name", "Name of the module which has subscribed."},
          {"period", "Refresh period (in milliseconds)."}},
         {}},
        {"updatePrecision(string name, float precision)",
         "Updates the precision if relevant.",
         {{"name", "Name of the module which has subscribed."}, {"precision", "Precision of the extractor."}},
         {}},
        {"getCurrentPeriod(): int period",
         "Gets the current period.",
         {},
         {"period", "Refresh period (in milliseconds)."}},
        {"getCurrentPrecision(): float precision",
         "Gets the current precision.",
         {},
         {"precision", "Precision of the extractor."}},
        {"getMyPeriod(string name): int period",
         "Gets the period for a specific subscription.",
         {{"name", "Name of the module which has subscribed."}},
         {"period", "Refresh period (in milliseconds)."}},
        {"getMyPrecision(string name): float precision",
         "Gets the precision for a specific subscription.",
         {{"name", "name of the module which has subscribed"}},
         {"precision", "precision of the extractor"}},
        {"getSubscribersInfo(): value subscribersInfo",
         "Gets the parameters given by the module.",
         {},
         {"subscribersInfo", "Array of names and parameters of all subscribers."}},
        {"getOutputNames(): array outputNames",
         "Get the list of values updated in KRMemory.",
         {},
         {"outputNames", "Array of values updated by this extractor in KRMemory"}},
        {"getEventList(): array outputNames",
         "Get the list of events updated in KRMemory.",
         {},
         {"outputNames", "Array of events updated by this extractor in KRMemory"}},
        {"getMemoryKeyList(): array outputNames",
         "Get the list of events updated in KRMemory.",
         {},
         {"outputNames", "Array of events updated by this extractor in KRMemory"}},
    };
    const auto methods = proxy->getMethodList();
    ASSERT_EQ(methods.size(), rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(rows[i].signature);
        EXPECT_EQ(methods[i].getSignature(), rows[i].signature);
        EXPECT_EQ(methods[i].className, "KRExtractor");
        EXPECT_EQ(methods[i].description, rows[i].description);
        ASSERT_EQ(methods[i].parameters.size(), rows[i].parameters.size());
        for (std::size_t k = 0; k < rows[i].parameters.size(); ++k) {
            EXPECT_EQ(methods[i].parameters[k].name, rows[i].parameters[k].first);
            EXPECT_EQ(methods[i].parameters[k].description, rows[i].parameters[k].second);
        }
        EXPECT_EQ(methods[i].result.name, rows[i].result.first);
        EXPECT_EQ(methods[i].result.description, rows[i].result.second);
    }
}

TEST_F(KRExtractorPublication, EveryMethodReachesItsOperation) {
    proxy->call("subscribe", "A", 100, 0.5F);
    proxy->call("subscribe", "B");
    proxy->call("updatePeriod", "B", 40);
    proxy->call("updatePrecision", "B", 0.75F);
    EXPECT_EQ(proxy->call<int>("getCurrentPeriod"), 40);
    EXPECT_EQ(proxy->call<float>("getCurrentPrecision"), 0.75F);
    EXPECT_EQ(proxy->call<int>("getMyPeriod", "A"), 100);
    EXPECT_EQ(proxy->call<float>("getMyPrecision", "A"), 0.5F);
    EXPECT_EQ(proxy->call<KRValue>("getSubscribersInfo"),
              KRValue::array(KRValue::array("A", 100, 0.5F), KRValue::array("B", 40, 0.75F)));
    proxy->call("unsubscribe", "A");
    proxy->call("unsubscribe", "B");
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 100 0.5", "update 100 0.5", "update 40 0.5",
                                                    "update 40 0.75", "update 40 0.75", "stop"));
}

TEST_F(KRExtractorPublication, RemoteCallersReachTheOverride) {
    class Overriding : public RecordingExtractor {
    public:
        using RecordingExtractor::RecordingExtractor;
        int getCurrentPeriod() override { return 4711; }
        std::vector<std::string> getOutputNames() override { return {"mine"}; }
    };
    const auto overriding = createModule<Overriding>(broker, "Overriding");
    EXPECT_EQ(broker->getProxy("Overriding")->call<int>("getCurrentPeriod"), 4711);
    EXPECT_THAT(broker->getProxy("Overriding")->call<std::vector<std::string>>("getOutputNames"),
                ElementsAre("mine"));
}

TEST_F(KRExtractorPublication, WithoutDeclarationsThereAreNoOutputs) {
    EXPECT_THAT(proxy->call<std::vector<std::string>>("getOutputNames"), IsEmpty());
    EXPECT_THAT(proxy->call<std::vector<std::string>>("getEventList"), IsEmpty());
    EXPECT_THAT(proxy->call<std::vector<std::string>>("getMemoryKeyList"), IsEmpty());
}

TEST_F(KRExtractorPublication, OutputsAreEventsThenKeysInOrderOfDeclaration) {
    extractor->declareEvent("E1");
    extractor->declareMemoryKey("K1");
    extractor->declareEvent("E2");
    EXPECT_THAT(proxy->call<std::vector<std::string>>("getOutputNames"), ElementsAre("E1", "E2", "K1"));
    EXPECT_THAT(proxy->call<std::vector<std::string>>("getEventList"), ElementsAre("E1", "E2"));
    EXPECT_THAT(proxy->call<std::vector<std::string>>("getMemoryKeyList"), ElementsAre("K1"));
}

TEST_F(KRExtractorPublication, DeclaringTwiceListsTwice) {
    extractor->declareEvent("E");
    extractor->declareEvent("E");
    extractor->declareMemoryKey("K");
    extractor->declareMemoryKey("K");
    EXPECT_THAT(extractor->getOutputNames(), ElementsAre("E", "E", "K", "K"));
}

TEST_F(KRExtractorPublication, ADeclaredKeyHoldsAnEmptyArrayAtOnce) {
    extractor->declareMemoryKey("K");
    const KRValue data = memory.getData("K");
    EXPECT_TRUE(data.isArray());
    EXPECT_EQ(data.getSize(), 0U);
}

TEST_F(KRExtractorPublication, ADeclaredEventSubscribesItsClientsToTheExtractor) {
    class Client : public KRModule {
    public:
        Client(boost::shared_ptr<KRBroker> parent, const std::string& name)
            : KRModule(std::move(parent), name) {
            functionName("onEvent", "Client", "");
            addParam("event", "");
            addParam("value", "");
            advertiseMethod(getCurrentMethodDescription(), this, &Client::onEvent);
        }
        void onEvent(const std::string& event, const KRValue& value) {
            got.set_value(event + std::to_string(int(value)));
        }
        std::promise<std::string> got;
    };
    extractor->declareEvent("FaceSeen");
    const auto client = createModule<Client>(broker, "Client");
    memory.subscribeToEvent("FaceSeen", "Client", "onEvent");
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("start 30 0"));
    EXPECT_EQ(extractor->getSubscribersInfo()[0][0], KRValue("Client"));
    memory.raiseEvent("FaceSeen", 3);
    EXPECT_EQ(client->got.get_future().get(), "FaceSeen3");
    memory.unsubscribeFromEvent("FaceSeen", "Client");
    EXPECT_THAT(extractor->takeHooks(), ElementsAre("stop"));
}

class FailingMemory : public KRModule {
public:
    FailingMemory(boost::shared_ptr<KRBroker> parent, const std::string& name)
        : KRModule(std::move(parent), name) {
        functionName("declareEvent", "FailingMemory", "");
        addParam("event", "");
        addParam("extractor", "");
        advertiseMethod(getCurrentMethodDescription(), this, &FailingMemory::declareEvent);
        functionName("insertData", "FailingMemory", "");
        addParam("key", "");
        addParam("value", "");
        advertiseMethod(getCurrentMethodDescription(), this, &FailingMemory::insertData);
    }
    void declareEvent(const std::string& event, const std::string& extractor) {
        throw KRError("KRMemory", "declareEvent", event + " of " + extractor);
    }
    void insertData(const std::string& key, const KRValue&) { throw KRError("KRMemory", "insertData", key); }
};

TEST(KRExtractorConstruction, AKeyDeclaredByTwoExtractorsIsReported) {
    const auto broker = KRBroker::create();
    std::atomic<int> warnings = 0;
    const KRLogListener listener([&](const KRLogRecord& record) {
        warnings +=
            record.message.starts_with("the modules First and Second both declare the key Seen") ? 1 : 0;
    });
    const auto first = createModule<RecordingExtractor>(broker, "First");
    const auto second = createModule<RecordingExtractor>(broker, "Second");
    first->declareMemoryKey("Seen");
    second->declareMemoryKey("Seen");
    flushLog();
    EXPECT_EQ(warnings, 1);
}

TEST(KRExtractorConstruction, WaitsForTheMemoryModule) {
    const auto broker = KRBroker::create("local:?memory=none");
    auto constructed =
        std::async(std::launch::async, [&] { return createModule<RecordingExtractor>(broker, "Waiting"); });
    EXPECT_EQ(constructed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    const auto memory = createModule<FailingMemory>(broker, "KRMemory");
    EXPECT_EQ(constructed.get()->getName(), "Waiting");
}

TEST(KRExtractorConstruction, ANameIsListedEvenIfTheMemoryModuleRefusesIt) {
    const auto broker = KRBroker::create("local:?memory=none");
    const auto memory = createModule<FailingMemory>(broker, "KRMemory");
    const auto extractor = createModule<RecordingExtractor>(broker, "Faces");
    try {
        extractor->declareEvent("E");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const KRError& error) {
        EXPECT_EQ(error.getDescription(), "E of Faces");
    }
    EXPECT_THROW(extractor->declareMemoryKey("K"), KRError);
    EXPECT_THAT(extractor->getOutputNames(), ElementsAre("E", "K"));
}

} // namespace
} // namespace KR::test
