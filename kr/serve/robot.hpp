#pragma once

#include "tool/json.hpp"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace KR::tool {

/// Position in a file, from 1; 0: not in a file.
struct Place {
    int line = 0;
    int column = 0;

    /// Always true, deliberately: an entry that only moved in the file has not changed.
    bool operator==(const Place&) const noexcept { return true; }
};

/// A camera of a system.
struct RobotCamera {
    std::string source = "test";
    std::string size = {}; ///< "640x480": minimum size while it is open; "": what its subscribers request
    std::vector<std::pair<std::string, int>> controls = {}; ///< values set whenever it opens, by name
    Place place = {};

    bool operator==(const RobotCamera&) const = default;
};

/// A module of a system.
struct RobotModule {
    std::string file = {}; ///< path of its library, or of a file of Python as loadModuleClass() takes it
    std::string name = {}; ///< "" in the same process: the default of its class
    bool ownProcess = false;
    bool restart = true; ///< restart it when it fails or ends
    std::vector<std::pair<std::string, Json>> parameters = {};
    Place place = {};

    bool operator==(const RobotModule&) const = default;
};

/// A subscription to an extractor, here or elsewhere.
struct RobotSubscription {
    std::string module = {};
    std::optional<int> period = {}; ///< milliseconds; nullopt: the values in force at the extractor
    double precision = 0;
    Place place = {};

    bool operator==(const RobotSubscription&) const = default;
};

/// A recording: the options of kr record.
struct RobotRecording {
    std::string file = {}; ///< with conversions of strftime(3), such as drive-%Y%m%d-%H%M%S.mcap
    bool all = false;
    std::vector<int> cameras = {};
    std::vector<std::string> memory = {}; ///< prefixes of keys
    std::vector<std::string> events = {};
    std::string compression = "none";
    std::optional<int> splitSize_MB = {};
    std::optional<int> splitDuration_s = {};
    std::optional<int> maxFiles = {};
    Place place = {};

    bool operator==(const RobotRecording&) const = default;
};

/// The web server: the options of kr web.
struct RobotWeb {
    std::string listen = {}; ///< IP address and port; "": the default
    std::string token = {};  ///< file with a secret; ""
    bool open = false;
    bool readOnly = false;
    std::vector<std::string> allowedOrigins = {};
    Place place = {};

    bool operator==(const RobotWeb&) const = default;
};

/// A system that kr serve runs, from its command line or a file.
struct Robot {
    std::string broker = "dds:";
    Place brokerPlace = {};
    std::string logLevel = {};             ///< as setLogLevels() takes it; "": not in the file
    std::string logFormat = {};            ///< "": not in the file
    std::vector<RobotCamera> cameras = {}; ///< none: the camera service is elsewhere
    std::vector<RobotModule> modules = {};
    std::vector<RobotSubscription> subscriptions = {};
    std::vector<std::pair<std::string, Json>> memory = {}; ///< values by key, written at the start
    std::optional<RobotRecording> recording = {};
    std::optional<RobotWeb> web = {};

    bool operator==(const Robot&) const = default;
};

/// YAML of a system, which readRobotFile() reads. What has its default value is left out.
std::string formatRobot(const Robot& robot);

} // namespace KR::tool
