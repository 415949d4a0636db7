#include "camera/krcontrols.hpp"

#include <cstdio>

namespace KR {

std::string listControls(const std::vector<KRCameraControl>& controls) {
    std::string list;
    for (const KRCameraControl& control : controls) {
        char number[16];
        std::snprintf(number, sizeof number, "0x%08x", static_cast<unsigned>(control.id));
        list += (list.empty() ? "" : ", ") + std::string(number) + " (" + control.name + ", " +
                std::to_string(control.minimum) + " to " + std::to_string(control.maximum) + ")";
    }
    return list.empty() ? "none" : list;
}

} // namespace KR
