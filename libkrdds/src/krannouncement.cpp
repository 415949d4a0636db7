#include "krannouncement.hpp"

#include "krvaluecode.hpp"

#include "krvision.h"

#include <krplatform/krerror.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace KR {

namespace {

constexpr std::size_t kFields = 5;    // of a module
constexpr std::int32_t kAskedFor = 3; // state of a requested name; the others are in KRModuleState
constexpr std::size_t kIdDigits = 32;

[[noreturn]] void refuse(const std::string& why) {
    throw KRMalformed("an announcement is malformed: " + why);
}

std::string readText(const char* text, const char* what) {
    const std::size_t size = text == nullptr ? 0 : strnlen(text, KRAnnouncement::kMaxText + 1);
    if (size > KRAnnouncement::kMaxText) {
        refuse(std::string("the name of a ") + what + " of more than " +
               std::to_string(KRAnnouncement::kMaxText) + " bytes");
    }
    return {text == nullptr ? "" : text, size};
}

KRAnnouncedModule readModule(const KRValue& entry) {
    if (!entry.isArray() || entry.getSize() != kFields || !entry[0].isString()) {
        refuse("a module is not described by " + std::to_string(kFields) + " fields");
    }
    for (std::size_t i = 1; i < kFields; ++i) {
        if (!entry[i].isInt()) {
            refuse("field " + std::to_string(i) + " of a module is not an integer");
        }
    }
    const auto state = entry[2].to<std::int32_t>();
    if (state < 0 || state > kAskedFor) {
        refuse("module state " + std::to_string(state));
    }
    const auto microseconds = entry[4].to<std::int32_t>();
    if (microseconds < 0 || microseconds > 999999) {
        refuse(std::to_string(microseconds) + " microseconds");
    }
    KRAnnouncedModule module;
    module.number = entry[1].to<std::int32_t>();
    module.asked = state == kAskedFor;
    module.state = module.asked ? KRModuleState::Claimed : static_cast<KRModuleState>(state);
    module.claimed = {entry[3].to<std::int32_t>(), microseconds};
    return module;
}

KRAnnouncedModules readModules(const dds_sequence_octet& encoded) {
    if (encoded._length > KRAnnouncement::kMaxBytes) {
        refuse("modules in " + std::to_string(encoded._length) + " bytes, more than " +
               std::to_string(KRAnnouncement::kMaxBytes));
    }
    const KRReceivedBytes bytes = KRReceivedBytes::allocate(encoded._length);
    std::copy_n(encoded._buffer, encoded._length, bytes.bytes.get());
    const KRValue list = decodeValue(bytes, 0, bytes.size, 2 * KRAnnouncement::kMaxModules * (1 + kFields));
    if (!list.isArray()) {
        refuse("the modules are not an array");
    }
    if (list.getSize() > KRAnnouncement::kMaxModules) {
        refuse("too many modules, " + std::to_string(list.getSize()));
    }
    KRAnnouncedModules modules;
    for (std::size_t i = 0; i < list.getSize(); ++i) {
        const KRAnnouncedModule module = readModule(list[i]);
        const auto name = list[i][0].to<std::string>();
        if (const std::string problem = findNameProblem(name); !problem.empty()) {
            refuse(problem);
        }
        if (!modules.emplace(name, module).second) {
            refuse("two modules named " + name);
        }
    }
    return modules;
}

} // namespace

bool isBrokerId(const char* text) noexcept {
    return text != nullptr && strnlen(text, kIdDigits + 1) == kIdDigits &&
           std::all_of(text, text + kIdDigits,
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::string findNameProblem(const std::string& module) {
    if (module.empty()) {
        return "a module without a name";
    }
    if (module.size() > KRAnnouncement::kMaxText) {
        return "a module name of " + std::to_string(module.size()) + " bytes, more than " +
               std::to_string(KRAnnouncement::kMaxText);
    }
    const bool printable = std::all_of(module.begin(), module.end(), [](char c) {
        return static_cast<unsigned char>(c) >= 0x20 && c != 0x7f;
    });
    return printable ? "" : "the module name " + escapeText(module) + " has control characters in it";
}

std::string KRAnnouncement::getLocation() const {
    return "in process " + std::to_string(pid) + " (" + escapeText(name) + ") on " + escapeText(host);
}

KRAnnouncement KRAnnouncement::parse(const KRVision_Announcement& message, std::uint32_t own) {
    if (!isBrokerId(message.broker)) {
        refuse("the identity of the broker is not " + std::to_string(kIdDigits) + " hexadecimal digits");
    }
    KRAnnouncement announcement;
    announcement.broker = message.broker;
    announcement.protocol = message.protocol;
    announcement.name = readText(message.name, "broker");
    announcement.host = readText(message.host, "host");
    announcement.pid = message.pid;
    if (announcement.protocol == own) {
        announcement.modules = readModules(message.modules);
    }
    return announcement;
}

// Fields that each end with a zero byte, the modules last.
std::string KRHostAnnouncement::compose(const KRVision_Announcement& message, const std::string& local,
                                        std::uint32_t port, const std::set<std::string>& overDDS) {
    std::string text;
    for (const std::string& field :
         {std::string(message.broker), std::to_string(message.protocol), std::string(message.name),
          std::string(message.host), std::to_string(message.pid), local, std::to_string(port),
          std::to_string(overDDS.size())}) {
        text.append(field) += '\0';
    }
    for (const std::string& broker : overDDS) {
        text.append(broker) += '\0';
    }
    return text.append(reinterpret_cast<const char*>(message.modules._buffer), message.modules._length);
}

KRHostAnnouncement KRHostAnnouncement::parse(std::string_view text, std::uint32_t own) {
    const auto next = [&] {
        const auto end = text.find('\0');
        if (end == std::string_view::npos) {
            refuse("a field is missing");
        }
        std::string field(text.substr(0, end));
        text.remove_prefix(end + 1);
        return field;
    };
    const auto nextNumber = [&] {
        const std::string field = next();
        std::uint32_t number = 0;
        const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), number);
        if (error != std::errc() || end != field.data() + field.size()) {
            refuse("\"" + escapeText(field, kIdDigits) + "\" is not a number");
        }
        return number;
    };
    std::string broker = next();
    KRVision_Announcement message{};
    message.broker = broker.data();
    message.protocol = nextNumber();
    std::string name = next();
    message.name = name.data();
    std::string host = next();
    message.host = host.data();
    message.pid = nextNumber();
    KRHostAnnouncement read;
    std::string local = next();
    const std::uint32_t port = nextNumber();
    for (std::uint32_t count = nextNumber(); count > 0; --count) {
        std::string other = next();
        if (!isBrokerId(other.c_str())) {
            refuse("the identity of a broker called over DDS is none");
        }
        read.overDDS.insert(std::move(other));
    }
    std::string modules(text);
    message.modules._buffer = reinterpret_cast<std::uint8_t*>(modules.data());
    message.modules._length = message.modules._maximum = static_cast<std::uint32_t>(modules.size());
    read.announcement = KRAnnouncement::parse(message, own);
    read.announcement.local = std::move(local);
    read.announcement.port = port;
    return read;
}

std::string encodeModules(const KRAnnouncedModules& modules) {
    std::vector<KRValue> list;
    list.reserve(modules.size());
    for (const auto& [name, module] : modules) {
        list.push_back(KRValue::array(name, module.number,
                                      module.asked ? kAskedFor : static_cast<std::int32_t>(module.state),
                                      module.claimed.first, module.claimed.second));
    }
    std::string encoded;
    const KRComposedBytes composed = encodeValue(list);
    for (const auto& piece : composed.getPieces()) {
        encoded.append(reinterpret_cast<const char*>(piece.data), piece.size);
    }
    if (modules.size() > KRAnnouncement::kMaxModules || encoded.size() > KRAnnouncement::kMaxBytes) {
        throw KRError("KRBroker", "registerModule",
                      std::to_string(modules.size()) + " modules are more than a broker can announce, " +
                          std::to_string(KRAnnouncement::kMaxModules) + " in " +
                          std::to_string(KRAnnouncement::kMaxBytes) + " bytes");
    }
    return encoded;
}

} // namespace KR
