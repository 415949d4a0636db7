#pragma once

#include "krbytes.hpp"

#include <krplatform/krvalue.hpp>

#include <cstdint>
#include <string>

namespace KR {

/// A value inside a received message, decoded on demand.
struct KREncodedValue {
    KRReceivedBytes message;
    std::size_t offset = 0;
    std::size_t size = 0;

    /// \throws KRMalformed
    KRValue decode() const;
};

/// Messages of idl/krvision.idl and their encoding on the wire.
struct KRRequest {
    enum Kind : std::uint32_t { Call, Inquiry };
    static constexpr std::size_t kMaxInquired = 10000; ///< calls that one inquiry asks about

    std::string broker;
    std::uint64_t sequence = 0;
    std::uint32_t kind = Call;
    std::string module;
    std::string method;
    KREncodedValue arguments; ///< of a received message

    /// \throws KRError the arguments cannot be encoded
    KRComposedBytes compose(const KRValue& withArguments) const;
    /// \throws KRMalformed
    static KRRequest parse(const KRReceivedBytes& message);
};

struct KRReply {
    enum Status : std::uint32_t { Result, Error, Unknown };

    std::string broker;
    std::uint64_t sequence = 0;
    std::uint32_t status = Result;
    KREncodedValue value; ///< of a received message

    /// \throws KRError the value cannot be encoded
    KRComposedBytes compose(const KRValue& withValue) const;
    /// \throws KRMalformed
    static KRReply parse(const KRReceivedBytes& message);
};

} // namespace KR
