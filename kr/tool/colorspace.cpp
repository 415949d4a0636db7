#include "tool/colorspace.hpp"

#include "tool/command.hpp"

#include <krvision/krcolorspacenames.hpp>

#include <vector>

namespace KR::tool {

namespace {

std::vector<std::string> getOptionNames() {
    std::vector<std::string> names;
    names.reserve(kColorSpaceNames.size());
    for (const KRColorSpaceName& space : kColorSpaceNames) {
        names.push_back(getColorSpaceOption(space.code));
    }
    return names;
}

} // namespace

int parseColorSpace(const std::string& name) {
    const int code = findColorSpace(name);
    if (code < 0) {
        throw UsageError("colour space " + name + " is not supported; colour spaces are " +
                         listColorSpaces());
    }
    return code;
}

std::string listColorSpaces() {
    std::string list;
    for (const std::string& name : getOptionNames()) {
        list += (list.empty() ? "" : ", ") + name;
    }
    return list;
}

Argument declareColorSpace(Arguments& arguments, std::string& name, const std::string& what) {
    return arguments.add("--color-space", name, what + ": " + listColorSpaces())
        .valueName("NAME")
        .completes(getOptionNames());
}

} // namespace KR::tool
