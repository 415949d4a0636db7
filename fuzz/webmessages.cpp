// Input from clients of the web server: messages of the protocol, requests for methods, and targets of HTTP requests.

#include "krwebmessages.hpp"
#include "krwebmethods.hpp"
#include "krwebrequest.hpp"

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string_view>

namespace {

std::vector<KR::KRMethodDescription> makeMethods() {
    KR::KRMethodDescription method;
    method.name = "scale";
    method.parameters = {{"value", ""}, {"factor", ""}};
    method.argumentTypes = {KR::KRArgumentType::Value, KR::KRArgumentType::Float};
    return {method};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::vector<KR::KRMethodDescription> methods = makeMethods();
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        KR::web::decodeText(text);
    } catch (const KR::web::ProtocolError&) { // NOLINT(bugprone-empty-catch): expected
    }
    try {
        KR::web::decodeBinary(std::span(data, size));
    } catch (const KR::web::ProtocolError&) { // NOLINT(bugprone-empty-catch): expected
    }
    try {
        KR::web::readRequest(methods, "scale", text);
    } catch (const std::invalid_argument&) { // NOLINT(bugprone-empty-catch): expected
    }
    try {
        KR::web::findPicture(KR::web::parseTarget(text));
    } catch (const KR::web::BadRequest&) { // NOLINT(bugprone-empty-catch): expected
    }
    return 0;
}
