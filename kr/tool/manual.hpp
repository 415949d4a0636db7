#pragma once

#include <string>
#include <utility>
#include <vector>

namespace KR::tool {

/// The --help of the program, a group or a verb, in parts.
struct ManualPage {
    using Entry = std::pair<std::string, std::string>; ///< a term and its description

    std::string command; ///< "kr", "kr camera" or "kr camera record"
    std::string usage;   ///< "kr camera record [OPTIONS] N... OUT..."
    std::string summary; ///< imperative, without a full stop
    std::vector<Entry> arguments;
    std::vector<Entry> options;
    std::vector<Entry> commands; ///< groups and verbs below it
    std::string example;         ///< and what else --help ends with; lines of examples begin with spaces
};

/// The program, then its groups and verbs as --help lists them; without hidden ones.
std::vector<ManualPage> makeManual();

/// The name of a page among manual pages: "kr-camera-record".
std::string getManualName(const ManualPage& page);

/// A page as man(7) reads it.
std::string formatMan(const ManualPage& page);

/// All pages as one document in Markdown.
std::string formatMarkdown(const std::vector<ManualPage>& pages);

/// The verbs alone with a line each, as a table in Markdown.
std::string formatVerbTable(const std::vector<ManualPage>& pages);

} // namespace KR::tool
