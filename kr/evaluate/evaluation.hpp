#pragma once

#include "evaluate/result.hpp"
#include "recording/recordedimages.hpp"
#include "tool/progress.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace KR {
class KRBroker;
class KRModule;
template <class Module>
class KRModuleHandle;
} // namespace KR

namespace KR::tool {

class Interruption;

/// How a module is to be evaluated.
struct EvaluationSettings {
    /// Methods of the module to call before it starts, each with its arguments as on the command line.
    std::vector<std::vector<std::string>> calls;
    /// Period in milliseconds, and precision; nullopt: the module's own.
    std::optional<std::pair<int, float>> subscription;
};

/// Result of an evaluation.
struct EvaluationOutcome {
    std::uint64_t images = 0; ///< delivered to the module
    std::uint64_t values = 0;
    std::uint64_t events = 0;
    double seconds = 0;               ///< from the first image to the end of the last
    std::vector<float> processing_ms; ///< per image, from its delivery to the next fetch
    std::string failure;              ///< why it ended early; empty: it did not
    std::vector<std::string> losses;  ///< of the recording, a sentence each
};

/// Delivers each image of a recording to a module, once and in order, as fast as the module fetches them, and passes on the
/// values and events that the module produces for each.
///
/// The module gets its own broker, on the clock of the recording. The second image waits until
/// the subscription to the module is complete, so that the same run has the same results.
/// \param makeModule  makes the module in the broker
/// \param sinks       where the results go; finish() is left to the caller
/// \throws KRError, std::runtime_error the module cannot be made or refuses a setting, and nothing has been evaluated
EvaluationOutcome
evaluate(const RecordedImages& recording,
         const std::function<KRModuleHandle<KRModule>(const boost::shared_ptr<KRBroker>&)>& makeModule,
         const EvaluationSettings& settings, const std::vector<ResultSink*>& sinks, Progress& progress,
         Interruption& interruption);

} // namespace KR::tool
