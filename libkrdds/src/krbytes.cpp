#include "krbytes.hpp"

#include <krplatform/krmutex.hpp>

#include <cstring>
#include <memory>

namespace KR {

namespace {

constexpr std::size_t kLarge = std::size_t{64} << 10;
constexpr std::size_t kMaxKept = std::size_t{32} << 20; // bytes in all

/// Currently free large buffers. Thread-safe.
class Reserve {
public:
    struct Buffer {
        std::unique_ptr<unsigned char[]> bytes;
        std::size_t size = 0;
    };

    Buffer take(std::size_t size) {
        {
            const KRLock lock(mutex_);
            for (auto each = kept_.begin(); each != kept_.end(); ++each) {
                if (each->size >= size && each->size / 2 <= size) {
                    Buffer buffer = std::move(*each);
                    kept_.erase(each);
                    keptBytes_ -= buffer.size;
                    return buffer;
                }
            }
        }
        return {std::unique_ptr<unsigned char[]>(new unsigned char[size]), size};
    }

    void give(Buffer buffer) noexcept {
        const KRLock lock(mutex_);
        if (keptBytes_ + buffer.size > kMaxKept) {
            return;
        }
        try {
            keptBytes_ += buffer.size;
            kept_.push_back(std::move(buffer));
        } catch (const std::bad_alloc&) {
            keptBytes_ -= buffer.size;
        }
    }

private:
    KRMutex mutex_;
    std::vector<Buffer> kept_ KR_GUARDED_BY(mutex_);
    std::size_t keptBytes_ KR_GUARDED_BY(mutex_) = 0;
};

const std::shared_ptr<Reserve>& getReserve() {
    static const auto reserve = std::make_shared<Reserve>(); // shared by the buffers in use
    return reserve;
}

} // namespace

KRReceivedBytes KRReceivedBytes::allocate(std::size_t length) {
    if (length < kLarge) {
        return {boost::shared_ptr<unsigned char[]>(new unsigned char[length]), length};
    }
    Reserve::Buffer buffer = getReserve()->take(length);
    const std::size_t capacity = buffer.size;
    return {boost::shared_ptr<unsigned char[]>(
                buffer.bytes.release(),
                [reserve = getReserve(), capacity](unsigned char* used) {
                    reserve->give({std::unique_ptr<unsigned char[]>(used), capacity});
                }),
            length};
}

void KRComposedBytes::appendShared(const KRComposedBytes& other) {
    for (const Shared& shared : other.shared_) {
        shared_.push_back({own_.size() + shared.after, shared.binary});
    }
    own_ += other.own_;
    size_ += other.size_;
}

void KRComposedBytes::overwrite(std::size_t offset, const void* bytes, std::size_t size) {
    std::memcpy(own_.data() + offset, bytes, size);
}

std::vector<KRComposedBytes::Piece> KRComposedBytes::getPieces() const& {
    std::vector<Piece> pieces;
    const auto* own = reinterpret_cast<const unsigned char*>(own_.data());
    std::size_t offset = 0;
    std::size_t ownOffset = 0;
    const auto add = [&](const unsigned char* data, std::size_t size) {
        if (size > 0) {
            pieces.push_back({data, size, offset});
            offset += size;
        }
    };
    for (const Shared& shared : shared_) {
        add(own + ownOffset, shared.after - ownOffset);
        ownOffset = shared.after;
        add(shared.binary.data(), shared.binary.size());
    }
    add(own + ownOffset, own_.size() - ownOffset);
    return pieces;
}

} // namespace KR
