// kr doctor

#include "checks.hpp"
#include "command.hpp"
#include "domain.hpp"
#include "json.hpp"

#include <krplatform/krerror.hpp>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    bool json = false;
};

void show(const Finding& finding) {
    std::printf("%-4s %-16s %s\n", finding.isGood ? "ok" : "BAD", finding.subject.c_str(),
                finding.text.c_str());
    if (!finding.remedy.empty()) {
        std::printf("     %-16s -> %s\n", "", finding.remedy.c_str());
    }
}

ExitCode act(const Options& options) {
    std::vector<Finding> findings{checkReceiveBuffer(), checkMulticast(),
                                  checkParticipants(options.domain.getUrl()), checkClock()};
    try {
        const BrokerComplaints complaints;
        const auto broker = options.domain.connect();
        findings.push_back(complaints.check());
        findings.push_back(checkServices(*broker, options.domain.getUrl()));
    } catch (const KRError& error) {
        findings.push_back({"broker", false, error.getDescription(), "see the line before; kr serve --help"});
    }
    if (options.json) {
        Json list = Json::array();
        for (const Finding& finding : findings) {
            list.push_back({{"subject", finding.subject},
                            {"good", finding.isGood},
                            {"text", finding.text},
                            {"remedy", finding.remedy}});
        }
        printJson(list);
    } else {
        std::for_each(findings.begin(), findings.end(), show);
    }
    const bool isGood =
        std::all_of(findings.begin(), findings.end(), [](const Finding& f) { return f.isGood; });
    return isGood ? ExitCode::Done : ExitCode::Failed;
}

const CommandRegistration registration({
    .group = "",
    .name = "doctor",
    .summary = "Looks for what commonly goes wrong, and says what to type about it",
    .example = "  kr doctor\n"
               "  kr doctor --broker 'dds:?domain=3'\n"
               "Exit code 1 if anything is wrong.",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_flag("--json", options->json, "Lists the findings as JSON");
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
});

} // namespace
} // namespace KR::tool
