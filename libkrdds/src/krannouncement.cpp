#include "krannouncement.hpp"

#include "krvaluecode.hpp"

#include "krvision.h"

#include <krplatform/krerror.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
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
