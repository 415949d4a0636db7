#include "recording/krrecordingaddress.hpp"

#include <charconv>
#include <stdexcept>
#include <string_view>

namespace KR {

KRRecordingAddress parseRecordingAddress(const std::string& text) {
    constexpr std::string_view option = "?pace=";
    KRRecordingAddress address;
    address.path = text;
    const std::size_t optionAt = text.rfind(option);
    if (optionAt != std::string::npos) {
        const std::string pace = text.substr(optionAt + option.size());
        if (pace != "own" && pace != "fetch") {
            throw std::invalid_argument("recording \"" + text +
                                        "\" has an unknown pace; the paces are own, fetch");
        }
        address.pacedByFetch = pace == "fetch";
        address.path.resize(optionAt);
    }
    const std::size_t hash = address.path.rfind('#');
    if (hash != std::string::npos) {
        const char* end = address.path.data() + address.path.size();
        int stream = 0;
        const auto [read, error] = std::from_chars(address.path.data() + hash + 1, end, stream);
        if (error == std::errc() && read == end && stream >= 0) {
            address.stream = stream;
            address.path.resize(hash);
        }
    }
    if (address.path.empty()) {
        throw std::invalid_argument("recording \"" + text +
                                    "\" is incomplete; expected PATH[#STREAM][?pace=own|fetch]");
    }
    return address;
}

} // namespace KR
