#pragma once

#include <krplatform/krvalue.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace KR {

/// Received bytes in one contiguous block. Large blocks are reused, because touching fresh pages costs more than filling
/// them.
struct KRReceivedBytes {
    boost::shared_ptr<unsigned char[]> bytes;
    std::size_t size = 0;

    static constexpr std::size_t kMax =
        (std::size_t{1} << 28) + (std::size_t{1} << 20); ///< larger messages are dropped

    static KRReceivedBytes allocate(std::size_t size);
};

/// Bytes to send: owned small pieces, and shared large binaries.
class KRComposedBytes {
public:
    struct Piece {
        const unsigned char* data;
        std::size_t size;
        std::size_t offset; ///< in the complete message
    };

    void append(const void* bytes, std::size_t size) {
        own_.append(static_cast<const char*>(bytes), size);
        size_ += size;
    }
    void appendShared(KRBinary binary) {
        size_ += binary.size();
        shared_.push_back({own_.size(), std::move(binary)});
    }
    void appendShared(const KRComposedBytes& other);
    std::size_t size() const noexcept { return size_; }
    /// The bytes, if no binary is shared.
    std::string takeOwn() && { return std::move(own_); }
    /// Overwrites bytes that were appended before the first shared binary.
    void overwrite(std::size_t offset, const void* bytes, std::size_t size);

    /// The pieces in order, valid until this is changed or destroyed.
    std::vector<Piece> getPieces() const&;

private:
    struct Shared {
        std::size_t after; // number of own bytes before it
        KRBinary binary;
    };
    std::string own_;
    std::vector<Shared> shared_;
    std::size_t size_ = 0;
};

} // namespace KR
