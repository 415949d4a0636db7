#include "evaluate/resultfile.hpp"

#include "system/valuejson.hpp"
#include "tool/filewriter.hpp"
#include "tool/outputfile.hpp"

#include <krinterop/krmcaptopics.hpp>
#include <krplatform/krtext.hpp>

#include <stdexcept>

namespace KR::tool {

namespace {

class JsonLines : public ResultSink {
public:
    explicit JsonLines(const std::string& path) : file_(path) {}
    void beginFrame(std::uint64_t, int, int, int) override {}
    void take(const Result& result) override {
        const std::string line = formatResult(result) + '\n';
        file_.write(line.data(), line.size());
    }
    void finish() override { file_.close(); }

private:
    FileWriter file_;
};

class McapResults : public ResultSink {
public:
    explicit McapResults(const std::string& path)
        : writer_(createMcapFile(path, getFinalName(path)), {}), recording_(writer_) {}
    void beginFrame(std::uint64_t, int camera, int width, int height) override {
        recording_.setImageSize(camera, width, height);
    }
    void take(const Result& result) override {
        const std::uint64_t time = toNanoseconds(result.timeStamp);
        if (result.isEvent) {
            recording_.writeEvent(result.name, result.value, time, result.frame);
        } else {
            recording_.writeMemory(result.name, result.value, time, result.frame);
        }
    }
    void finish() override { writer_.close(); }

private:
    KRMcapWriter writer_;
    KRMcapRecording recording_;
};

} // namespace

std::string formatResult(const Result& result) {
    return formatJson({{"frame", result.frame},
                       {"time_stamp_usec", result.timeStamp},
                       {result.isEvent ? "event" : "key", result.name},
                       {"value", toJson(result.value)}});
}

ReadResult parseResult(const std::string& line) {
    try {
        const Json json = Json::parse(line);
        ReadResult result;
        result.isEvent = json.contains("event");
        result.frame = json.at("frame").get<std::uint64_t>();
        result.name = json.at(result.isEvent ? "event" : "key").get<std::string>();
        result.value = json.at("value");
        return result;
    } catch (const Json::exception& error) {
        throw std::invalid_argument(std::string("not a result of kr evaluate: ") + escapeText(error.what()));
    }
}

std::unique_ptr<ResultSink> makeResultFile(const std::string& path) {
    if (getExtension(path) == ".mcap") {
        return std::make_unique<McapResults>(path);
    }
    return std::make_unique<JsonLines>(path);
}

} // namespace KR::tool
