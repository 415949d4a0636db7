// KRMcapReader on any bytes, in both orders, with the decoding of images and their properties, and of attachments and
// metadata.

#include <krinterop/krmcaptopics.hpp>

#include <algorithm>
#include <cstring>

namespace {

class Input : public KR::KRMcapInput {
public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    std::uint64_t getSize() override { return size_; }
    std::size_t readAt(void* to, std::size_t size, std::uint64_t offset) override {
        if (offset >= size_) {
            return 0;
        }
        const std::size_t read = std::min<std::size_t>(size, size_ - offset);
        std::memcpy(to, data_ + offset, read);
        return read;
    }

private:
    const std::uint8_t* const data_;
    const std::size_t size_;
};

void readMessages(KR::KRMcapReader& reader) {
    KR::KRMcapImages images;
    KR::KRImage image(1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f);
    for (KR::KRMcapMessage message; reader.next(message);) {
        try {
            images.take(message, image);
        } catch (const KR::KRCdrError&) { // NOLINT(bugprone-empty-catch): most messages
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KR::KRMcapLimits limits;
    limits.maxRecordSize = std::uint64_t{1} << 20;
    limits.maxSummarySize = std::uint64_t{1} << 20;
    limits.maxOpenChunks = std::uint64_t{4} << 20;
    limits.maxRecords = 1000;
    try {
        KR::KRMcapReader reader(std::make_unique<Input>(data, size), limits);
        readMessages(reader);
        for (const KR::KRMcapAttachmentIndex& index : reader.getAttachments()) {
            try {
                reader.readAttachment(index);
            } catch (const KR::KRMcapError&) { // NOLINT(bugprone-empty-catch): the next one may be readable
            }
        }
        for (const KR::KRMcapMetadataIndex& index : reader.getMetadata()) {
            try {
                reader.readMetadata(index);
            } catch (const KR::KRMcapError&) { // NOLINT(bugprone-empty-catch): as above
            }
        }
        KR::KRMcapSelection selection;
        selection.order = KR::KRMcapSelection::Order::Time;
        selection.startTime = 1;
        reader.select(selection);
        readMessages(reader);
    } catch (const KR::KRMcapError&) { // NOLINT(bugprone-empty-catch): the only possible error
    }
    return 0;
}
