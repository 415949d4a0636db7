#pragma once

#include <krvision/krimage.hpp>

#include <memory>
#include <string>

namespace KR::tool {

class Cameras;
class Subscription;

/// Fetches images until a module has written annotations about one of them, and draws them into it.
/// \param subscription  to this camera
/// \param module        writes the key "MODULE/Annotations"
/// \throws KRError  as Subscription::fetch(); the key holds something else
/// \throws std::runtime_error  the module writes nothing about this camera within Domain::kPatience. The text says why
std::unique_ptr<KRImage> fetchAnnotatedImage(const Cameras& cameras, Subscription& subscription, int camera,
                                             const std::string& module);

} // namespace KR::tool
