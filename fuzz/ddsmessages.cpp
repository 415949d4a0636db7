// Requests and replies of other processes: any bytes are parsed or refused.

#include "krmessage.hpp"
#include "krvaluecode.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace {

template <class Parse>
void tryTo(Parse parse) {
    try {
        parse();
    } catch (const KR::KRMalformed&) { // expected for most
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KR::KRReceivedBytes received = KR::KRReceivedBytes::allocate(size);
    std::copy_n(data, size, received.bytes.get());
    tryTo([&] { KR::KRRequest::parse(received).arguments.decode(); });
    tryTo([&] { KR::KRReply::parse(received).value.decode(); });
    tryTo([&] {
        const KR::KRValue value = KR::decodeValue(received, 0, size);
        // What was parsed can be sent again, with the same meaning.
        const KR::KRComposedBytes composed = KR::encodeValue(value);
        KR::KRReceivedBytes again = KR::KRReceivedBytes::allocate(composed.size());
        for (const auto& piece : composed.getPieces()) {
            std::copy_n(piece.data, piece.size, again.bytes.get() + piece.offset);
        }
        (void)KR::decodeValue(again, 0, again.size);
    });
    return 0;
}
