// Strings that describe camera sources, from command lines, configuration files and other modules: each is parsed or
// refused, and none reveals a password.

#include "recording/krrecordingaddress.hpp"
#include "source/krsourcestring.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

// Every kind of argument; no sources are created here.
constexpr std::array kinds{
    KR::KRSourceKind{"test", "test, test:PATTERN", 1, nullptr, "ball"},
    KR::KRSourceKind{"oxv", "oxv:PATH", 7, nullptr},
    KR::KRSourceKind{"rtsp", "rtsp://...", 5, nullptr, nullptr, true},
};

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void parse(const std::string& text) {
    const KR::KRSourceString source = KR::parseSourceString(text, kinds);
    check(!source.argument.empty());
    const bool isSecret = !source.password.empty() && source.password.find('*') == std::string::npos;
    check(!isSecret || source.text.find(source.password) == std::string::npos);
    if (source.kind == &kinds[1]) {
        const KR::KRRecordingAddress address = KR::parseRecordingAddress(source.argument);
        check(!address.path.empty() && address.stream >= 0 && source.argument.starts_with(address.path));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (const KR::KRSourceKind& kind : kinds) {
        for (const std::string& source :
             {text, std::string(kind.scheme) + ":" + text, std::string(kind.scheme) + "://" + text}) {
            try {
                parse(source);
            } catch (const std::invalid_argument&) { // expected for most
            }
        }
    }
    return 0;
}
