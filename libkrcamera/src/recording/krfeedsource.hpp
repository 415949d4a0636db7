#pragma once

#include "source/krsource.hpp"

#include <memory>

namespace KR {

class KRImageFeed;

/// A camera whose images a program provides. It has no controls.
std::unique_ptr<KRSource> makeFeedSource(std::shared_ptr<KRImageFeed> feed);

} // namespace KR
