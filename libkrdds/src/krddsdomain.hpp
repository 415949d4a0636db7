#pragma once

#include "krddsoptions.hpp"

#include <krplatform/krsourcelocation.hpp>

#include <dds/dds.h>

#include <memory>
#include <string>
#include <utility>

namespace KR {

/// \return the handle or code if it is none of an error
/// \throws KRError it is; the text says what the engine said about `what`
dds_return_t checkDDS(dds_return_t code, const std::string& what,
                      KRSourceLocation where = KRSourceLocation::current());

/// The engine's domain of one number in this process, shared by the brokers that are on it. The engine reads its
/// configuration when the first comes, so they must agree about it.
class KRDDSDomain {
public:
    /// \throws KRError the engine refuses; another broker of this process is on the domain with other options
    static std::shared_ptr<KRDDSDomain> join(const KRDDSOptions& options);
    ~KRDDSDomain();
    KRDDSDomain(const KRDDSDomain&) = delete;
    KRDDSDomain& operator=(const KRDDSDomain&) = delete;

    std::uint32_t getNumber() const noexcept { return number_; }

private:
    explicit KRDDSDomain(std::uint32_t number) : number_(number) {}
    const std::uint32_t number_;
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
