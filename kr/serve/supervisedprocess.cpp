#include "serve/supervisedprocess.hpp"

#include <krplatform/krlog.hpp>

#include <signal.h>

namespace KR::tool {

void SupervisedProcess::xStart() {
    process_ = std::make_unique<ChildProcess>(makeCommand_(), output_);
}

void SupervisedProcess::xEnd() {
    deadline_ = Clock::now() + kTimeToEnd;
    if (process_) {
        process_->send(SIGTERM);
    }
}

bool SupervisedProcess::xIsGone() {
    if (!process_ || process_->findEnd()) {
        return true;
    }
    if (Clock::now() > deadline_) {
        logError("kr.serve", getTitle() + " did not end in time and is killed");
        process_->send(SIGKILL);
        deadline_ = Clock::time_point::max();
    }
    return false;
}

} // namespace KR::tool
