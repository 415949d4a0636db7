// Announcements of other brokers: with any fields, they are accepted or refused. Accepted ones can be announced
// again, with the same meaning.

#include "krannouncement.hpp"
#include "krvaluecode.hpp"

#include "krvision.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

/// Splits the input: texts by lengths of two bytes, then the rest.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    std::string takeText() {
        const std::size_t wanted = size_ < 2 ? 0 : static_cast<std::size_t>(data_[0] | data_[1] << 8);
        skip(size_ < 2 ? size_ : 2);
        const std::size_t size = wanted < size_ ? wanted : size_;
        std::string text(reinterpret_cast<const char*>(data_), size);
        skip(size);
        return text;
    }
    std::vector<std::uint8_t> takeRest() const { return {data_, data_ + size_}; }

private:
    void skip(std::size_t bytes) {
        data_ += bytes;
        size_ -= bytes;
    }

    const std::uint8_t* data_;
    std::size_t size_;
};

void parse(KRVision_Announcement& message, std::vector<std::uint8_t> modules) {
    message.modules._buffer = modules.data();
    message.modules._length = message.modules._maximum = static_cast<std::uint32_t>(modules.size());
    try {
        const auto announcement = KR::KRAnnouncement::parse(message, message.protocol);
        (void)announcement.getLocation();
        std::string again = KR::encodeModules(announcement.modules);
        message.modules._buffer = reinterpret_cast<std::uint8_t*>(again.data());
        message.modules._length = message.modules._maximum = static_cast<std::uint32_t>(again.size());
        if (KR::KRAnnouncement::parse(message, message.protocol).modules.size() !=
            announcement.modules.size()) {
            std::abort();
        }
    } catch (const KR::KRMalformed&) { // expected for most
    }
}

void parseOnHost(std::string_view text) {
    try {
        const auto read = KR::KRHostAnnouncement::parse(text, 1);
        (void)read.announcement.getLocation();
    } catch (const KR::KRMalformed&) { // expected for most
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    std::string broker = input.takeText();
    std::string name = input.takeText();
    std::string host = input.takeText();
    KRVision_Announcement message{};
    message.broker = broker.data();
    message.protocol = 1;
    message.name = name.data();
    message.host = host.data();
    parse(message, input.takeRest());
    // The modules separately: otherwise most would be refused because of the identity.
    std::string identity(32, 'a');
    message.broker = identity.data();
    name = host = "name";
    message.name = name.data();
    message.host = host.data();
    parse(message, {data, data + size});
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    parseOnHost(text);
    // The fields after the identity, the protocol and the names.
    parseOnHost(identity + std::string("\0001\0name\0host\0", 13) + std::string(text));
    return 0;
}
