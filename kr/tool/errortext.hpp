#pragma once

#include <krplatform/krerror.hpp>

#include <string>

namespace KR::tool {

/// Everything that an error says, without the place in the source: "KRMemory.getData: there is no data named x". If
/// an error has an explanation in place of the method, as those of extractors do, it becomes part of the sentence:
/// "KRExtractor: received unsubscribe from non-subscribed module: nobody".
std::string describe(const KRError& error);

/// The same for an error of a call: the module and the method that were called, what they say, and the origin of the
/// error if that is another method: "KRMotion.subscribe: KRVideoDevice.subscribeCamera: camera 7 does not exist".
std::string describeFailedCall(const std::string& module, const std::string& method, const KRError& error);

} // namespace KR::tool
