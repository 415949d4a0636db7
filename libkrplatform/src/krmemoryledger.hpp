#pragma once

#include "krplatform/krproxy.hpp"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace KR {

/// What the modules of this process have told the memory module, to tell it again when another has come: a memory in
/// another process may go and come back. Thread-safe.
class KRMemoryLedger {
public:
    explicit KRMemoryLedger(boost::shared_ptr<KRBroker> broker);

    void noteDeclaration(const std::string& event, const std::string& extractor);
    void noteSubscription(const std::string& event, const std::string& client, const std::string& callback);
    void forgetSubscription(const std::string& event, const std::string& client);
    /// What the module had told has gone with it.
    void forgetModule(const std::string& module);

    /// Tells the memory that is there now, if it is another than the last one. Calls it, so it may block.
    void tellMemory();
    /// Ends tellMemory() soon.
    void stop() noexcept { stopping_ = true; }

private:
    using Declarations = std::map<std::string, std::string>; // extractor by event
    using Subscriptions =
        std::map<std::pair<std::string, std::string>, std::string>; // callback by event, client

    bool tell(const Declarations& declarations, const Subscriptions& subscriptions, bool last);

    const KRProxy memory_;
    std::atomic<bool> stopping_ = false;
    std::mutex mutex_;
    // Guarded by mutex_.
    std::uint32_t told_ = 0; // number of the memory that knows it all
    Declarations declarations_;
    Subscriptions subscriptions_;
};

} // namespace KR
