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
#include "tool/errortext.hpp"
#include "tool/interruption.hpp"

#ifdef KR_WITH_WEB
#include "web/weboptions.hpp"

#include <krweb/krweb.hpp>
#endif

#include <krplatform/krerror.hpp>
#include <krplatform/krlogformat.hpp>
#include <krplatform/krtext.hpp>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace KR::tool::serve {

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
        arguments.addFlag("--check", check, "list of all problems of the file, without serving");
        arguments.addFlag("--print", print, "the file equivalent to the command line, without serving");
        cameras.declare(arguments, "0=test");
        arguments.add("--run", libraries, "module library or Python file[:class] to host")
            .valueName("[NAME=]MODULE")
            .repeatable();
        hosting.declare(arguments);
#ifdef KR_WITH_WEB
        web.declareForServe(arguments);
#endif
        arguments
            .add("--broker", broker,
                 "address of the broker: dds: with options, see docs/several-machines.md (default: that of "
                 "the "
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
        robot.modules.push_back({.file = named.path, .name = names.back(), .restart = false});
    }
    for (const auto& [name, parameters] : options.hosting.readParameters(names)) {
        RobotModule& module = *std::ranges::find(robot.modules, name, &RobotModule::name);
        for (const auto& [parameter, value] : parameters) {
            module.parameters.emplace_back(parameter, toJson(value));
        }
    }
    return robot;
}

#ifdef KR_WITH_WEB
/// The web server of the system, if it has one.
class WebPart {
public:
    WebPart(boost::shared_ptr<KRBroker> broker, std::string url)
        : broker_(std::move(broker)), url_(std::move(url)) {}

    /// Starts, stops or keeps it. \throws UsageError, std::runtime_error as WebOptions::start()
    void set(const std::optional<RobotWeb>& wanted) {
        if (wanted == running_) {
            return;
        }
        server_.reset(); // the new one may need its port
        running_ = std::nullopt;
        if (wanted) {
            WebOptions options;
            options.setWeb(*wanted);
            server_ = options.start(broker_, url_);
            running_ = wanted;
        }
    }

private:
    const boost::shared_ptr<KRBroker> broker_;
    const std::string url_;
    std::optional<RobotWeb> running_;
    std::unique_ptr<KRWebServer> server_;
};
#else
class WebPart {
public:
    WebPart(const boost::shared_ptr<KRBroker>&, const std::string&) {}
    void set(const std::optional<RobotWeb>&) {}
};
#endif

void setWeb(const Options& options, Robot& robot, std::vector<RobotProblem>& problems) {
#ifdef KR_WITH_WEB
    (void)problems;
    const auto given = options.web.getWeb();
    robot.web = given ? given : robot.web;
#else
    (void)options;
    if (robot.web) {
        problems.push_back({robot.web->place, "this build of kr has no web server"});
    }
#endif
}

// Absolute, so that the file can be stored anywhere.
void makePathsAbsolute(Robot& robot) {
    const auto folder = std::filesystem::current_path();
    for (RobotCamera& camera : robot.cameras) {
        camera.source = resolveSource(folder, camera.source);
    }
    for (RobotModule& module : robot.modules) {
        module.file = (folder / module.file).lexically_normal().string();
    }
    if (robot.web && !robot.web->token.empty()) {
        robot.web->token = (folder / robot.web->token).lexically_normal().string();
    }
}

Robot readFile(const Options& options, std::vector<RobotProblem>& problems) {
    Robot robot = readRobotFile(options.file, problems);
    checkRobot(robot, problems);
    setWeb(options, robot, problems);
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
    std::printf("%s: cameras %zu, modules %zu, subscriptions %zu; no problems\n",
                escapeText(options.file).c_str(), robot.cameras.size(), robot.modules.size(),
                robot.subscriptions.size());
    return ExitCode::Done;
}

Robot readRobot(const Options& options) {
    std::vector<RobotProblem> problems;
    Robot robot = options.file.empty() ? readOptions(options) : readFile(options, problems);
    if (options.file.empty()) {
        setWeb(options, robot, problems);
    }
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
        throw UsageError("with a file, cameras, modules, parameters and subscriptions are in it: " +
                         options.file);
    }
}

// The command line overrides the environment, which overrides the file.
void setUpLog(const Robot& robot) {
    if (!robot.logLevel.empty() && getLogOptions().levels.empty() && std::getenv("KR_LOG") == nullptr) {
        setLogLevels(robot.logLevel);
    }
    if (!robot.logFormat.empty() && getLogOptions().format.empty() &&
        std::getenv("KR_LOG_FORMAT") == nullptr) {
        setLogFormat(parseLogFormat(robot.logFormat));
    }
}

void reload(const Options& options, RobotHost& host, WebPart& web, const ServiceNotifier& notifier) {
    notifier.reportReloading();
    try {
        Robot next = readRobot(options);
        setUpLog(next);
        const auto wantedWeb = next.web;
        host.apply(std::move(next));
        try {
            web.set(wantedWeb);
        } catch (const std::exception& error) {
            logError("kr.serve", "there is no web server: " + std::string(error.what()));
        }
        logInfo("kr.serve", options.file + " has been reloaded");
    } catch (const std::exception& error) {
        logError("kr.serve", "the file is not applied: " + std::string(error.what()));
    }
    notifier.reportReady();
}

// Until it is interrupted, or no module is left.
void run(const Options& options, RobotHost& host, WebPart& web, const ServiceNotifier& notifier,
         Interruption& interruption) {
    const Pulse pulse(host.getBroker(), notifier);
    const std::string url = host.getUrl();
    bool isAnnounced = false;
    bool isReady = false;
    std::string status;
    while (!interruption.waitFor(isAnnounced ? kStep : kStep / 10) && !host.isOver()) {
        if (interruption.takeReload()) {
            reload(options, host, web, notifier);
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
    const auto wantedWeb = robot.web;
    RobotHost host(std::move(robot));
    WebPart web(host.getBroker(), url); // destroyed after the modules that it calls
    ExitCode code = ExitCode::Done;
    try {
        web.set(wantedWeb);
        run(options, host, web, notifier, interruption);
        code = host.hasFailed() ? ExitCode::Failed : ExitCode::Done;
    } catch (const UsageError& error) {
        printError(error.what());
        code = ExitCode::WrongUsage;
    } catch (const KRError& error) {
        printError(describe(error));
        code = ExitCode::Failed;
    } catch (const std::exception& error) {
        printError(error.what());
        code = ExitCode::Failed;
    }
    notifier.reportStopping();
    host.takeDown(code);
    return code;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "serve",
    .summary = "Run the camera service, the memory and modules for all brokers of the domain",
    .example =
        "  kr serve --camera 0=test:ball --camera 1=file:clip.mp4 --run ./krmotion.so\n"
        "  kr serve --run DoorMotion=./krmotion.so --broker 'dds:?domain=3'\n"
        "  kr serve --run ./krmotion.so --param-file robot.json --subscribe KRMotion:100:1.0\n"
        "  kr serve robot.yaml                       the same from a file; SIGHUP reloads it\n"
        "A module that fails or exits by itself is reported, and the exit code is then 1; others continue.\n"
        "A module of a file is restarted, after an increasing delay.",
    .run = serve,
});

} // namespace
} // namespace KR::tool::serve
