#pragma once

#include "krddsoptions.hpp"

#include <krplatform/krsourcelocation.hpp>

#include <dds/dds.h>

#include <memory>
#include <string>
#include <utility>

struct ddsi_domaingv;

namespace KR {

/// Checks what a function of the engine returned.
/// \return `code`, if it is not an error
/// \throws KRError it is one; the text has what the engine refused, `what`, and the reason
dds_return_t checkDDS(dds_return_t code, const std::string& what,
                      KRSourceLocation where = KRSourceLocation::current());

/// Logs how many lines of the engine were suppressed, as other processes can cause any number of them. Call it
/// periodically. Thread-safe.
void flushEngineLog();

/// The engine's instance of a domain in this process, shared by the brokers on it. The engine reads its configuration
/// once, so they must have the same.
class KRDDSDomain {
public:
    /// \param meetsOnHost  whether the broker meets others in the host directory: then a new instance neither sends nor
    ///                     receives anything before show()
    /// \throws KRError the engine refuses; another broker of this process is on the domain with other options
    static std::shared_ptr<KRDDSDomain> join(const KRDDSOptions& options, bool meetsOnHost);
    ~KRDDSDomain();
    KRDDSDomain(const KRDDSDomain&) = delete;
    KRDDSDomain& operator=(const KRDDSDomain&) = delete;

    std::uint32_t getNumber() const noexcept { return number_; }
    /// Whether no other host can be reached.
    bool staysOnHost() const noexcept { return staysOnHost_; }
    /// The participant has been created. \param engine  of the domain
    void noticeEngine(ddsi_domaingv* engine);
    /// Begins to send and receive.
    void show() noexcept;
    /// The engine ignores other participants than before. No effect before show().
    void filterIgnored(ddsi_domaingv* engine) noexcept;
    /// Whether a broker of this process on the domain does not meet others in the host directory, so the engine must not ignore
    /// any.
    bool needsDiscovery() const;

private:
    KRDDSDomain(std::uint32_t number, bool staysOnHost, bool meetsOnHost, dds_entity_t domain)
        : number_(number), staysOnHost_(staysOnHost), meetsOnHost_(meetsOnHost), domain_(domain) {}
    const std::uint32_t number_;
    const bool staysOnHost_;
    const bool meetsOnHost_;
    const dds_entity_t domain_;
};

/// An entity of the engine, deleted with this.
class KRDDSEntity {
public:
    KRDDSEntity() = default;
    explicit KRDDSEntity(dds_entity_t entity) noexcept : entity_(entity) {}
    KRDDSEntity(KRDDSEntity&& other) noexcept : entity_(std::exchange(other.entity_, 0)) {}
    KRDDSEntity& operator=(KRDDSEntity&& other) noexcept {
        std::swap(entity_, other.entity_);
        return *this;
    }
    ~KRDDSEntity() { reset(); }
    void reset() noexcept {
        if (entity_ > 0) {
            dds_delete(std::exchange(entity_, 0));
        }
    }
    dds_entity_t get() const noexcept { return entity_; }

private:
    dds_entity_t entity_ = 0;
};

} // namespace KR
