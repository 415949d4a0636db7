#pragma once

#include "serve/childprocess.hpp"
#include "serve/supervised.hpp"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace KR::tool {

/// A supervised child process.
class SupervisedProcess : public Supervised {
public:
    /// Time to end before it is killed.
    static constexpr std::chrono::seconds kTimeToEnd{5};

    /// \param makeCommand  returns path and arguments, for each start
    /// \param isReady  whether it is up
    SupervisedProcess(std::string title, bool restart, std::function<std::vector<std::string>()> makeCommand,
                      std::function<bool()> isReady, ChildOutput output)
        : Supervised(std::move(title), restart), makeCommand_(std::move(makeCommand)),
          isReady_(std::move(isReady)), output_(output) {}

protected:
    void xStart() override;
    std::optional<std::string> xFindEnd() override { return process_ ? process_->findEnd() : std::nullopt; }
    bool xIsUp() override { return isReady_(); }
    void xEnd() override;
    bool xIsGone() override;

private:
    const std::function<std::vector<std::string>()> makeCommand_;
    const std::function<bool()> isReady_;
    const ChildOutput output_;
    std::unique_ptr<ChildProcess> process_;
    Clock::time_point deadline_{}; // for its end
};

} // namespace KR::tool
