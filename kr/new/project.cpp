#include "new/project.hpp"

#include "new/templates.hpp"

#include <krplatform/krtext.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <unistd.h>

namespace KR::tool {

namespace {

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Words that no file of Python code can be called if it is to be imported, and packages that the project itself imports.
bool isTakenInPython(const std::string& name) {
    constexpr std::array<std::string_view, 40> kTaken = {
        "and",  "as",     "assert",   "async",   "await", "break",    "class",  "continue", "def",    "del",
        "elif", "else",   "except",   "finally", "for",   "from",     "global", "if",       "import", "in",
        "is",   "lambda", "nonlocal", "not",     "or",    "pass",     "raise",  "return",   "try",    "while",
        "with", "yield",  "True",     "False",   "None",  "krvision", "numpy",  "pytest",   "test",   "site"};
    return std::ranges::find(kTaken, name) != kTaken.end();
}

std::string replaceAll(std::string text, std::string_view what, const std::string& with) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
        text.replace(at, what.size(), with);
    }
    return text;
}

std::string fill(const std::string& text, const ProjectNames& names) {
    return replaceAll(replaceAll(replaceAll(text, "@name@", names.name), "@Class@", names.className),
                      "@Module@", names.module);
}

void write(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file) {
        throw std::runtime_error(path.string() + " cannot be written");
    }
    if (text.starts_with("#!")) {
        using std::filesystem::perms;
        std::filesystem::permissions(path, perms::owner_exec | perms::group_exec | perms::others_exec,
                                     std::filesystem::perm_options::add);
    }
}

} // namespace

ProjectNames makeProjectNames(const std::string& name, bool isPython) {
    const auto refuse = [&](const std::string& why) {
        throw std::invalid_argument("\"" + escapeText(name) + "\" cannot be the name of a module: " + why);
    };
    const bool isRight = !name.empty() && isLetter(name.front()) && std::ranges::all_of(name, [](char c) {
        return isLetter(c) || isDigit(c) || c == '-' || c == '_';
    });
    if (!isRight) {
        refuse("it begins with a letter and has letters, digits, \"-\" and \"_\", such as red-ball");
    }
    ProjectNames names;
    names.name = isPython ? replaceAll(name, "-", "_") : name;
    bool isFirst = true; // letter of a word
    for (const char c : name) {
        if (c != '-' && c != '_') {
            names.className += isFirst ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
        }
        isFirst = c == '-' || c == '_';
    }
    if (names.className == "KR") {
        refuse("its class would have the name of the library's namespace");
    }
    if (isPython && isTakenInPython(names.name)) {
        refuse("Python has something of that name");
    }
    constexpr std::string_view kSuffix = "Extractor";
    names.module = names.className;
    if (names.module.ends_with(kSuffix) && names.module != kSuffix) {
        names.module.resize(names.module.size() - kSuffix.size());
    }
    return names;
}

void writeProject(const std::filesystem::path& folder, const std::vector<std::string>& kinds,
                  const ProjectNames& names) {
    if (std::filesystem::exists(std::filesystem::symlink_status(folder))) {
        throw std::runtime_error(folder.string() + " exists already");
    }
    const std::filesystem::path partial = folder.string() + ".partial-" + std::to_string(::getpid());
    try {
        for (const Template& each : getTemplates()) {
            const auto slash = each.path.find('/');
            if (std::ranges::find(kinds, each.path.substr(0, slash)) != kinds.end()) {
                write(partial / replaceAll(each.path.substr(slash + 1), "NAME", names.name),
                      fill(each.text, names));
            }
        }
        std::filesystem::rename(partial, folder);
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove_all(partial, ignored);
        throw;
    }
}

} // namespace KR::tool
