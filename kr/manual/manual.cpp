// kr manual: called when manual pages and the reference are built

#include "tool/manual.hpp"
#include "tool/command.hpp"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool::manual {

namespace {

struct Options {
    std::string form;
    std::string folder = ".";

    void declare(Arguments& arguments) {
        arguments
            .add("FORM", form,
                 "man: a page each for the program, its groups and its verbs; markdown: all in one; table: "
                 "the verbs alone")
            .required()
            .oneOf({"man", "markdown", "table"});
        arguments.add("FOLDER", folder, "folder for man pages").showDefault();
        arguments.hide();
    }
};

void writePages(const std::vector<ManualPage>& pages, const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder);
    for (const ManualPage& page : pages) {
        const std::filesystem::path path = folder / (getManualName(page) + ".1");
        std::ofstream file(path);
        file << formatMan(page);
        file.close();
        if (!file) {
            throw std::runtime_error(path.string() + ": cannot be written");
        }
    }
}

ExitCode printManual(const Options& options) {
    const std::vector<ManualPage> pages = makeManual();
    if (options.form == "man") {
        writePages(pages, options.folder);
    } else {
        const std::string text = options.form == "table" ? formatVerbTable(pages) : formatMarkdown(pages);
        std::fputs(text.c_str(), stdout);
    }
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "manual",
    .summary = "Write the --help of all verbs as manual pages or in Markdown",
    .example = "  kr manual man build/man\n"
               "  kr manual table",
    .run = printManual,
});

} // namespace
} // namespace KR::tool::manual
