// kr serve

#include "camera/cameras.hpp"
#include "serve/hostingoptions.hpp"
#include "serve/modulelibrary.hpp"
#include "serve/pulse.hpp"
#include "serve/robotcheck.hpp"
#include "serve/robotfile.hpp"
#include "serve/robothost.hpp"
#include "serve/servicenotifier.hpp"
#include "system/domain.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/interruption.hpp"

#ifdef KR_WITH_WEB
#include "web/weboptions.hpp"

#include <krweb/krweb.hpp>
#endif

#include <krplatform/krlogformat.hpp>
#include <krplatform/krtext.hpp>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

constexpr std::chrono::milliseconds kStep{100};

struct Options {
    std::string file;
    std::string broker;
    SourceOptions cameras;
    std::vector<std::string> libraries;
    HostingOptions hosting;
#ifdef KR_WITH_WEB
    WebOptions web;
#endif
    bool check = false;
    bool print = false;

    void declare(Arguments& arguments) {
        arguments.add("FILE", file, "file of the system, such as robot.yaml: docs/robot-file.md");
        arguments.addFlag("--check", check, "list of everything that is wrong with the file; serves nothing");
        arguments.addFlag("--print", print, "the file that the command line amounts to; serves nothing");
        cameras.declare(arguments, "0=test");
        arguments.add("--run", libraries, "module library or Python file[:class] to host too")
            .valueName("[NAME=]MODULE")
            .repeatable();
        hosting.declare(arguments);
#ifdef KR_WITH_WEB
        web.declareForServe(arguments);
#endif
        arguments
            .add("--broker", broker,
                 "address of the broker: dds: with options, see docs/several-machines.md (default: that of the "
                 "file, or dds:)")
            .valueName("URL")
            .completes({Domain::kDefaultUrl, "dds:?domain=", "dds:?peers="});
    }
};

Robot readOptions(const Options& options) {
    Robot robot;
    for (const std::string& source : options.cameras.readSources()) {
        robot.cameras.push_back({.source = source});
    }
    robot.subscriptions = options.hosting.readSubscriptions();
    std::vector<std::string> names;
    for (const std::string& library : options.libraries) {
        const NamedLibrary named = splitNamedLibrary(library);
        const HostedClass moduleClass = loadModuleClass(named.path);
        names.push_back(named.name.empty() ? moduleClass.defaultName : named.name);
        robot.modules.push_back({.library = named.path, .name = names.back(), .restart = false});
    }
    for (const auto& [name, parameters] : options.hosting.readParameters(names)) {
        RobotModule& module = *std::ranges::find(robot.modules, name, &RobotModule::name);
        for (const auto& [parameter, value] : parameters) {
            module.parameters.emplace_back(parameter, toJson(value));
        }
    }
    return robot;
}

// As a file that lies anywhere needs them.
void makePathsAbsolute(Robot& robot) {
    const auto folder = std::filesystem::current_path();
    for (RobotCamera& camera : robot.cameras) {
        camera.source = resolveSource(folder, camera.source);
    }
    for (RobotModule& module : robot.modules) {
        module.library = (folder / module.library).lexically_normal().string();
    }
}

Robot readFile(const Options& options, std::vector<RobotProblem>& problems) {
    Robot robot = readRobotFile(options.file, problems);
    checkRobot(robot, problems);
    if (!options.broker.empty()) {
        robot.broker = options.broker;
    }
    return robot;
}

ExitCode checkFile(const Options& options) {
    std::vector<RobotProblem> problems;
    const Robot robot = readFile(options, problems);
    if (!problems.empty()) {
        std::printf("%s\n", formatProblems(options.file, problems).c_str());
        return ExitCode::Failed;
    }
    std::printf("%s: cameras %zu, modules %zu, subscriptions %zu; nothing is wrong\n",
                escapeText(options.file).c_str(), robot.cameras.size(), robot.modules.size(),
                robot.subscriptions.size());
    return ExitCode::Done;
}

Robot readRobot(const Options& options) {
    std::vector<RobotProblem> problems;
    Robot robot = options.file.empty() ? readOptions(options) : readFile(options, problems);
    if (!problems.empty()) {
        throw std::runtime_error(formatProblems(options.file, problems));
    }
    if (!options.broker.empty()) {
        robot.broker = options.broker;
    }
    return robot;
}

void checkUsage(const Options& options) {
    if (options.file.empty()) {
        if (options.check) {
            throw UsageError("--check needs a file, as in kr serve --check robot.yaml");
        }
        return;
    }
    if (!options.cameras.cameras.empty() || !options.libraries.empty() || !options.hosting.isEmpty()) {
        throw UsageError("with a file, cameras, modules, parameters and subscriptions are in it: " + options.file);
    }
}

// The command line counts most, then the environment.
void setUpLog(const Robot& robot) {
    if (!robot.logLevel.empty() && getLogOptions().levels.empty() && std::getenv("KR_LOG") == nullptr) {
        setLogLevels(robot.logLevel);
    }
    if (!robot.logFormat.empty() && getLogOptions().format.empty() && std::getenv("KR_LOG_FORMAT") == nullptr) {
        setLogFormat(parseLogFormat(robot.logFormat));
    }
}

void reload(const Options& options, RobotHost& host, const ServiceNotifier& notifier) {
    notifier.reportReloading();
    try {
        Robot next = readRobot(options);
        setUpLog(next);
        host.apply(std::move(next));
        logInfo("kr.serve", options.file + " has been read again");
    } catch (const std::exception& error) {
        logError("kr.serve", "everything stays as it was: " + std::string(error.what()));
    }
    notifier.reportReady();
}

ExitCode serve(const Options& options) {
    Interruption interruption(options.file.empty() ? Interruption::HangUp::Interrupts
                                                   : Interruption::HangUp::Reloads);
    checkUsage(options);
    if (options.check) {
        return checkFile(options);
    }
    const ServiceNotifier notifier;
    setLogLevel(KRLogLevel::Info);
    Robot robot = readRobot(options);
    if (options.print) {
        makePathsAbsolute(robot);
        std::fputs(formatRobot(robot).c_str(), stdout);
        return ExitCode::Done;
    }
    setUpLog(robot);
    const std::string url = robot.broker;
    RobotHost host(std::move(robot));
    const Pulse pulse(host.getBroker(), notifier);
#ifdef KR_WITH_WEB
    const auto web = options.web.start(host.getBroker(), url); // ends after the modules that it calls
#endif
    bool isAnnounced = false;
    bool isReady = false;
    std::string status;
    while (!interruption.waitFor(isAnnounced ? kStep : kStep / 10) && !host.isOver()) {
        if (interruption.takeReload()) {
            reload(options, host, notifier);
        }
        host.poll();
        pulse.beat();
        if (!isAnnounced && host.hasTriedAll()) {
            isAnnounced = true;
            printNotice("serving on " + url + "; Ctrl-C ends it");
        }
        if (!isReady && host.isUp()) {
            isReady = true;
            notifier.reportReady();
        }
        if (host.describe() != status) {
            status = host.describe();
            notifier.reportStatus(status);
        }
    }
    notifier.reportStopping();
    host.takeDown();
    return host.hasFailed() ? ExitCode::Failed : ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "serve",
    .summary = "Run the camera service, the memory and modules for all brokers of the domain",
    .example =
        "  kr serve --camera 0=test:ball --camera 1=file:clip.mp4 --run ./krmotion.so\n"
        "  kr serve --run DoorMotion=./krmotion.so --broker 'dds:?domain=3'\n"
        "  kr serve --run ./krmotion.so --param-file robot.json --subscribe KRMotion:100:1.0\n"
        "  kr serve robot.yaml                       all that in a file; SIGHUP has it read again\n"
        "A module that fails or exits by itself is reported, and the exit code is 1 then; the others go on.\n"
        "A module of a file is started again, after a pause that grows.",
    .run = serve,
});

} // namespace
} // namespace KR::tool
