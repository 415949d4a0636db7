#pragma once

#include <string>
#include <vector>

namespace KR::tool {

/// A file of a new project, as it lies in the folder templates/.
struct Template {
    std::string path; ///< "extractor/test/NAME_test.cpp": the kind of project, and the path in it
    std::string text;
};

/// All of them, in order of their paths.
const std::vector<Template>& getTemplates();

} // namespace KR::tool
