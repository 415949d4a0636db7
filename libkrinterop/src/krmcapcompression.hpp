#pragma once

#include "krinterop/krmcap.hpp"

#include <cstddef>
#include <memory>
#include <string_view>

namespace KR::mcap {

/// A reused buffer for bytes that are about to be overwritten: never zeroed.
class Buffer {
public:
    /// At least `size` bytes, with arbitrary content. \throws std::bad_alloc
    unsigned char* prepare(std::size_t size) {
        if (size > capacity_) {
            bytes_.reset(); // before allocating the larger one
            capacity_ = 0;
            bytes_ = std::make_unique_for_overwrite<unsigned char[]>(size);
            capacity_ = size;
        }
        return bytes_.get();
    }
    const unsigned char* get() const noexcept { return bytes_.get(); }
    std::size_t getCapacity() const noexcept { return capacity_; }

private:
    std::unique_ptr<unsigned char[]> bytes_;
    std::size_t capacity_ = 0;
};

/// Compresses the content of chunks. Reentrant.
class Compressor {
public:
    Compressor(KRMcapCompression compression, int level);
    ~Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;

    /// \return the compressed bytes, valid until the next call
    /// \throws KRMcapError the library refuses
    KRBytes compress(KRBytes content);

private:
    struct Context;
    const KRMcapCompression compression_;
    const int level_;
    std::unique_ptr<Context> context_;
    Buffer buffer_;
};

/// Decompresses the content of chunks. Reentrant.
class Decompressor {
public:
    Decompressor();
    ~Decompressor();
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;

    /// Whether decompress() supports it: "lz4" or "zstd".
    static bool isKnown(std::string_view compression) noexcept;
    /// Fills `content` exactly.
    /// \throws KRMcapError the bytes are not of this compression, or have another size
    void decompress(std::string_view compression, KRBytes compressed, std::span<unsigned char> content);

private:
    void decompressLz4(KRBytes compressed, std::span<unsigned char> content);
    void decompressZstd(KRBytes compressed, std::span<unsigned char> content);

    struct Contexts;
    std::unique_ptr<Contexts> contexts_;
};

} // namespace KR::mcap
