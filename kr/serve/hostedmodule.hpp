#pragma once

#include "serve/robot.hpp"
#include "serve/supervised.hpp"

#include <krplatform/krmodulehandle.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <future>
#include <string>

namespace KR {
class KRBroker;
}

namespace KR::tool {

/// A module in this process.
class HostedModule : public Supervised {
public:
    /// \param module  with a name
    HostedModule(boost::shared_ptr<KRBroker> broker, RobotModule module);

    /// Changes the initial values from the next start on.
    void setParameters(std::vector<std::pair<std::string, Json>> parameters);
    /// Releases the module; empty if there is none. An unfinished constructor is waited for until `deadline`.
    /// \param isStuck  set if the constructor has not finished by then, or an earlier module has not shut down
    KRModuleHandle<KRModule> release(Clock::time_point deadline, bool& isStuck);

protected:
    void xStart() override;
    std::optional<std::string> xFindEnd() override;
    bool xIsUp() override { return static_cast<bool>(handle_); }
    void xEnd() override;
    bool xIsGone() override;

private:
    const boost::shared_ptr<KRBroker> broker_;
    RobotModule module_;
    std::future<KRModuleHandle<KRModule>> making_;
    KRModuleHandle<KRModule> handle_;
    std::future<void> comingDown_;
    bool ending_ = false;
};

} // namespace KR::tool
