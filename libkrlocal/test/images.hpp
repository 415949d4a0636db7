#pragma once

#include "testservice.hpp"

#include <atomic>
#include <cstring>
#include <string>

namespace KR::test {

/// Every pixel of an image has one value, and each image another than the one before.
inline void serveImages(KRLocalRequest& request) {
    static std::atomic<unsigned char> last = 0;
    if (request.message.body.empty()) {
        request.reply(request.message);
        return;
    }
    const std::size_t size = std::stoul(request.message.body);
    const auto bytes = KRBinary::allocate(size);
    std::memset(bytes.get(), ++last, size);
    request.reply(makeMessage(0, "", {KRBinary(bytes, size)}));
}

inline KRBinary fetchImage(KRLocalConnection& connection, std::size_t size) {
    return connection.call(makeMessage(0, std::to_string(size))).binaries.at(0);
}

/// Whether it has not been overwritten by another image.
inline bool isImage(const KRBinary& image) {
    return std::memcmp(image.data(), image.data() + 1, image.size() - 1) == 0;
}

} // namespace KR::test
