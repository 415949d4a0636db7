#include "tool/manual.hpp"

#include "tool/registry.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <functional>
#include <sstream>

namespace KR::tool {

namespace {

std::vector<const CLI::App*> getShown(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); });
}

ManualPage describe(const CLI::App& app, const std::string& command) {
    const CLI::Formatter formatter;
    ManualPage page{command, command, app.get_description(), {}, {}, {}, app.get_footer()};
    page.usage += app.get_require_subcommand_min() == 0 ? " [OPTIONS]" : " [OPTIONS] VERB";
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_group().empty()) {
            continue;
        }
        const bool isArgument = option->get_positional();
        const ManualPage::Entry entry{formatter.make_option_name(option, isArgument) +
                                          formatter.make_option_opts(option),
                                      option->get_description()};
        (isArgument ? page.arguments : page.options).push_back(entry);
        if (isArgument) {
            page.usage += " " + formatter.make_option_usage(option);
        }
    }
    page.usage += app.get_allow_extras() ? " ARGS..." : "";
    for (const CLI::App* each : getShown(app)) {
        page.commands.emplace_back(command + " " + each->get_name(), each->get_description());
    }
    return page;
}

void describeAll(const CLI::App& app, const std::string& command, std::vector<ManualPage>& pages) {
    pages.push_back(describe(app, command));
    for (const CLI::App* each : getShown(app)) {
        describeAll(*each, command + " " + each->get_name(), pages);
    }
}

std::vector<std::string> splitLines(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// A line of text for man(7), where a backslash and a dot or quote at the beginning mean something.
std::string escapeMan(const std::string& line) {
    std::string escaped = line.starts_with(".") || line.starts_with("'") ? "\\&" : "";
    for (const char c : line) {
        escaped += c == '\\' ? "\\e" : c == '-' ? "\\-" : std::string(1, c);
    }
    return escaped;
}

void addMan(std::string& out, const std::string& title, const std::vector<ManualPage::Entry>& entries) {
    if (entries.empty()) {
        return;
    }
    out += ".SH " + title + "\n";
    for (const auto& [term, text] : entries) {
        out += ".TP\n.B " + escapeMan(term) + "\n" + escapeMan(text) + "\n";
    }
}

// Examples keep their lines.
void addManFooter(std::string& out, const std::string& footer) {
    bool isExample = false;
    for (const std::string& line : splitLines(footer)) {
        if (line == "Example:") {
            out += ".SH EXAMPLES\n";
            continue;
        }
        if (line.starts_with("  ") != isExample) {
            isExample = !isExample;
            out += isExample ? ".nf\n" : ".fi\n.PP\n";
        } else if (!isExample) {
            out += ".br\n";
        }
        out += escapeMan(isExample ? line.substr(2) : line) + "\n";
    }
    out += isExample ? ".fi\n" : "";
}

std::string escapeCell(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        escaped += c == '|' ? "\\|" : std::string(1, c);
    }
    return escaped;
}

// Code in Markdown takes everything as it is; a table still ends its cells at a bar.
std::string toCode(const std::string& text) {
    return "`" + escapeCell(text) + "`";
}

void addMarkdown(std::string& out, const std::vector<ManualPage::Entry>& entries) {
    if (entries.empty()) {
        return;
    }
    out += "| | |\n|---|---|\n";
    for (const auto& [term, text] : entries) {
        out += "| " + toCode(term) + " | " + escapeCell(text) + " |\n";
    }
    out += "\n";
}

} // namespace

std::vector<ManualPage> makeManual() {
    CLI::App app("", "kr");
    std::function<ExitCode()> chosen;
    ValueCompleters completers;
    declareAll(app, chosen, completers);
    std::vector<ManualPage> pages;
    describeAll(app, "kr", pages);
    return pages;
}

std::string getManualName(const ManualPage& page) {
    std::string name = page.command;
    std::ranges::replace(name, ' ', '-');
    return name;
}

std::string formatMan(const ManualPage& page) {
    const std::string name = getManualName(page);
    std::string out = ".TH \"" + escapeMan(name) + "\" 1 \"\" \"KRVision " KR_VERSION "\" \"KRVision\"\n";
    out += ".SH NAME\n" + escapeMan(name) + " \\- " + escapeMan(page.summary) + "\n";
    out += ".SH SYNOPSIS\n.B " + escapeMan(page.usage) + "\n";
    addMan(out, "VERBS", page.commands);
    addMan(out, "ARGUMENTS", page.arguments);
    addMan(out, "OPTIONS", page.options);
    if (!page.example.empty() && !page.example.starts_with("Example:")) {
        out += ".SH DESCRIPTION\n";
    }
    addManFooter(out, page.example);
    if (page.command != "kr") {
        out += ".SH SEE ALSO\n.BR kr (1)\n";
    }
    return out;
}

std::string formatMarkdown(const std::vector<ManualPage>& pages) {
    std::string out = "# Reference of kr\n\nThe `--help` of all verbs.\n\n";
    for (const ManualPage& page : pages) {
        out += "## " + page.command + "\n\n" + page.summary + ".\n\n    " + page.usage + "\n\n";
        addMarkdown(out, page.commands);
        addMarkdown(out, page.arguments);
        addMarkdown(out, page.options);
        bool isExample = false;
        for (const std::string& line : splitLines(page.example)) {
            const bool wasExample = isExample;
            isExample = line.starts_with("  ");
            out += isExample != wasExample || isExample == false ? "\n" : "";
            out += (isExample ? "  " : "") + line + "\n";
        }
        out += "\n";
    }
    return out;
}

std::string formatVerbTable(const std::vector<ManualPage>& pages) {
    std::string out = "| | |\n|---|---|\n";
    for (const ManualPage& page : pages) {
        if (page.commands.empty() || !page.arguments.empty()) { // a group may do something without a verb
            std::string usage = page.usage;
            usage.erase(usage.find(" [OPTIONS]"), sizeof " [OPTIONS]" - 1);
            out += "| " + toCode(usage) + " | " + escapeCell(page.summary) + " |\n";
        }
    }
    return out;
}

} // namespace KR::tool
