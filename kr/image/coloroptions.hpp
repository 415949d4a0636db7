#pragma once

#include "image/pictureconversion.hpp"
#include "tool/arguments.hpp"

namespace KR::tool {

/// The option --as-modules-see of a verb that writes pictures.
struct ColorOptions {
    bool asModulesSee = false;

    void declare(Arguments& arguments) {
        arguments.addFlag("--as-modules-see", asModulesSee,
                          "colours of YUV422 and luma by the conversions of KRImage instead of the standard");
    }
    Colors getColors() const { return asModulesSee ? Colors::AsModulesSee : Colors::Standard; }
};

} // namespace KR::tool
