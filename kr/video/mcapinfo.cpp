#include "video/mcapinfo.hpp"

#include "tool/json.hpp"
#include "tool/timestamp.hpp"
#include "video/mcap.hpp"
#include "video/timeline.hpp"

#include <krplatform/krtext.hpp>
#include <krvision/krcolorspacenames.hpp>

#include <cstdio>

namespace KR::tool {

namespace {

using Unsigned = unsigned long long;

void printImages(const McapImages& images) {
    const Timeline time = makeTimeline(images.timeStamps);
    std::printf("  images of %s\n", escapeText(images.topic).c_str());
    if (images.colorSpace >= 0) {
        std::printf("    size            %ux%u pixels\n", images.width, images.height);
        std::printf("    colour space    %s\n", describeColorSpace(images.colorSpace).c_str());
    }
    std::printf("    frames          %llu\n", static_cast<Unsigned>(time.frames));
    if (images.refused > 0) {
        std::printf("    refused         %llu; the first one: %s\n", static_cast<Unsigned>(images.refused),
                    escapeText(images.refusal).c_str());
    }
    if (time.frames == 0) {
        return;
    }
    std::printf("    begins          %s\n", formatTimeStamp(time.first).c_str());
    std::printf("    ends            %s\n", formatTimeStamp(time.last).c_str());
    if (time.getRate() > 0) {
        std::printf("    rate            %.2f frames/s, usual interval %.1f ms\n", time.getRate(),
                    static_cast<double>(time.usualInterval) / 1000.0);
    }
    std::printf("    gaps            %zu\n", time.gaps.size());
    std::printf("    backward jumps  %zu\n", time.jumps.size());
}

void print(const std::string& path, const McapContent& content) {
    std::printf("%s\n", path.c_str());
    std::printf("  format            MCAP, %s\n", content.isIndexed  ? "indexed"
                                                  : content.isClosed ? "not indexed"
                                                                     : "never closed");
    std::printf("  on disk           %llu bytes, %zu chunks, %zu attachments\n",
                static_cast<Unsigned>(content.fileSize), content.chunks, content.attachments);
    std::printf("  messages          %llu\n", static_cast<Unsigned>(content.messages));
    if (content.messages > 0) {
        std::printf("  begins            %s\n",
                    formatTimeStamp(static_cast<std::int64_t>(content.startTime / 1000)).c_str());
        std::printf("  ends              %s\n",
                    formatTimeStamp(static_cast<std::int64_t>(content.endTime / 1000)).c_str());
    }
    for (const McapTopic& topic : content.topics) {
        std::printf("  %-40s %8llu  %s, %s\n", escapeText(topic.topic).c_str(),
                    static_cast<Unsigned>(topic.messages), escapeText(topic.schema).c_str(),
                    escapeText(topic.encoding).c_str());
    }
    for (const McapImages& images : content.images) {
        printImages(images);
    }
    for (const std::string& damage : content.damage) {
        std::printf("  damage            %s\n", escapeText(damage).c_str());
    }
}

Json toJson(const std::string& path, const McapContent& content) {
    Json topics = Json::array(), streams = Json::array();
    for (const McapTopic& topic : content.topics) {
        topics.push_back({{"topic", topic.topic},
                          {"messages", topic.messages},
                          {"schema", topic.schema},
                          {"encoding", topic.encoding}});
    }
    for (const McapImages& images : content.images) {
        const Timeline time = makeTimeline(images.timeStamps);
        streams.push_back({{"topic", images.topic},
                           {"width", images.width},
                           {"height", images.height},
                           {"color_space", images.colorSpace},
                           {"frames", time.frames},
                           {"refused", images.refused},
                           {"begins_usec", time.first},
                           {"ends_usec", time.last},
                           {"frames_per_second", time.getRate()},
                           {"gaps", time.gaps.size()},
                           {"backward_jumps", time.jumps.size()}});
    }
    return {{"file", path},
            {"format", "mcap"},
            {"indexed", content.isIndexed},
            {"closed", content.isClosed},
            {"file_bytes", content.fileSize},
            {"chunks", content.chunks},
            {"attachments", content.attachments},
            {"messages", content.messages},
            {"begins_usec", content.startTime / 1000},
            {"ends_usec", content.endTime / 1000},
            {"topics", topics},
            {"streams", streams},
            {"damage", content.damage}};
}

} // namespace

void printMcapInfo(const std::string& path, bool asJson) {
    McapContent content;
    {
        Progress progress(0);
        content = readMcap(path, progress);
    }
    if (asJson) {
        printJson(toJson(path, content));
    } else {
        print(path, content);
    }
}

} // namespace KR::tool
