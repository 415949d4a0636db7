// kr doctor

#include "doctor/checks.hpp"
#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"
#include "tool/json.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace KR::tool::doctor {

namespace {

void print(const Finding& finding) {
    std::printf("%-4s %-16s %s\n", finding.isGood ? "ok" : "BAD", finding.subject.c_str(),
                escapeText(finding.text).c_str());
    if (!finding.remedy.empty()) {
        std::printf("     %-16s -> %s\n", "", finding.remedy.c_str());
    }
}

std::vector<Finding> examine(const Domain& domain) {
    std::vector<Finding> findings{checkReceiveBuffer(), checkMulticast(), checkClock()};
    try {
        findings.push_back(checkParticipants(domain.getUrl()));
        const auto broker = domain.connect();
        findings.push_back(checkBrokers(*broker));
        findings.push_back(checkWays(*broker));
        findings.push_back(checkServices(*broker, domain.getUrl()));
        findings.push_back(checkModules(*broker));
        findings.push_back(checkOutputs(*broker));
        findings.push_back(checkMessages(*broker));
    } catch (const KRError& error) {
        findings.push_back({"broker", false, describe(error), "kr serve --help   (has an example)"});
    }
    return findings;
}

ExitCode printFindings(const ListOptions& options) {
    const std::vector<Finding> findings = examine(options.domain);
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
        std::for_each(findings.begin(), findings.end(), print);
    }
    const bool isGood =
        std::all_of(findings.begin(), findings.end(), [](const Finding& f) { return f.isGood; });
    return isGood ? ExitCode::Done : ExitCode::Failed;
}

const VerbRegistration registration(Verb<ListOptions>{
    .group = "",
    .name = "doctor",
    .summary = "Check this machine and its brokers for common problems, and suggest what to type",
    .example = "  kr doctor\n"
               "  kr doctor --broker 'dds:?domain=3'\n"
               "Exit code 1 if there is a problem.",
    .run = printFindings,
});

} // namespace
} // namespace KR::tool::doctor
