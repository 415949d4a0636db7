#include "krmcapcompression.hpp"

#include <lz4frame.h>
#include <zstd.h>

#include <new>
#include <string>

namespace KR::mcap {

namespace {

struct FreeLz4 {
    void operator()(LZ4F_dctx* context) const noexcept { LZ4F_freeDecompressionContext(context); }
};
struct FreeZstd {
    void operator()(ZSTD_CCtx* context) const noexcept { ZSTD_freeCCtx(context); }
    void operator()(ZSTD_DCtx* context) const noexcept { ZSTD_freeDCtx(context); }
};

std::size_t checkLz4(std::size_t result) {
    if (LZ4F_isError(result) != 0) {
        throw KRMcapError(std::string("lz4: ") + LZ4F_getErrorName(result));
    }
    return result;
}

std::size_t checkZstd(std::size_t result) {
    if (ZSTD_isError(result) != 0) {
        throw KRMcapError(std::string("zstd: ") + ZSTD_getErrorName(result));
    }
    return result;
}

} // namespace

struct Compressor::Context {
    std::unique_ptr<ZSTD_CCtx, FreeZstd> zstd;
};

Compressor::Compressor(KRMcapCompression compression, int level)
    : compression_(compression), level_(level), context_(std::make_unique<Context>()) {
    if (compression == KRMcapCompression::Zstd) {
        context_->zstd.reset(ZSTD_createCCtx());
        if (!context_->zstd) {
            throw std::bad_alloc();
        }
    }
}

Compressor::~Compressor() = default;

KRBytes Compressor::compress(KRBytes content) {
    if (compression_ == KRMcapCompression::None) {
        return content;
    }
    if (compression_ == KRMcapCompression::Zstd) {
        const std::size_t bound = ZSTD_compressBound(content.size());
        unsigned char* to = buffer_.prepare(bound);
        return {to, checkZstd(ZSTD_compressCCtx(context_->zstd.get(), to, bound, content.data(),
                                                content.size(), level_))};
    }
    LZ4F_preferences_t preferences = LZ4F_INIT_PREFERENCES;
    preferences.frameInfo.blockSizeID = LZ4F_max4MB;
    preferences.frameInfo.blockMode = LZ4F_blockIndependent;
    preferences.frameInfo.contentSize = content.size();
    preferences.compressionLevel = level_;
    const std::size_t bound = LZ4F_compressFrameBound(content.size(), &preferences);
    unsigned char* to = buffer_.prepare(bound);
    return {to, checkLz4(LZ4F_compressFrame(to, bound, content.data(), content.size(), &preferences))};
}

struct Decompressor::Contexts {
    std::unique_ptr<LZ4F_dctx, FreeLz4> lz4;
    std::unique_ptr<ZSTD_DCtx, FreeZstd> zstd;
};

Decompressor::Decompressor() : contexts_(std::make_unique<Contexts>()) {}

Decompressor::~Decompressor() = default;

bool Decompressor::isKnown(std::string_view compression) noexcept {
    return compression == "lz4" || compression == "zstd";
}

void Decompressor::decompress(std::string_view compression, KRBytes compressed,
                              std::span<unsigned char> content) {
    if (compression == "lz4") {
        decompressLz4(compressed, content);
    } else {
        decompressZstd(compressed, content);
    }
}

void Decompressor::decompressLz4(KRBytes compressed, std::span<unsigned char> content) {
    if (!contexts_->lz4) {
        LZ4F_dctx* context = nullptr;
        checkLz4(LZ4F_createDecompressionContext(&context, LZ4F_VERSION));
        contexts_->lz4.reset(context);
    }
    LZ4F_resetDecompressionContext(contexts_->lz4.get());
    LZ4F_decompressOptions_t options{};
    options.stableDst = 1; // output stays in place, so no separate window is needed
    std::size_t consumed = 0, produced = 0;
    bool isWhole = false;
    while (consumed < compressed.size()) {
        std::size_t to = content.size() - produced, from = compressed.size() - consumed;
        unsigned char none = 0;
        unsigned char* destination = content.empty() ? &none : content.data() + produced;
        const std::size_t hint = checkLz4(LZ4F_decompress(contexts_->lz4.get(), destination, &to,
                                                          compressed.data() + consumed, &from, &options));
        consumed += from;
        produced += to;
        isWhole = hint == 0;
        if (from == 0 && to == 0) {
            break; // more content than there should be
        }
    }
    if (!isWhole || consumed != compressed.size() || produced != content.size()) {
        throw KRMcapError("lz4: the content does not have " + std::to_string(content.size()) + " bytes");
    }
}

void Decompressor::decompressZstd(KRBytes compressed, std::span<unsigned char> content) {
    if (!contexts_->zstd) {
        contexts_->zstd.reset(ZSTD_createDCtx());
        if (!contexts_->zstd) {
            throw std::bad_alloc();
        }
    }
    const std::size_t produced = checkZstd(ZSTD_decompressDCtx(
        contexts_->zstd.get(), content.data(), content.size(), compressed.data(), compressed.size()));
    if (produced != content.size()) {
        throw KRMcapError("zstd: the content has " + std::to_string(produced) + " bytes instead of " +
                          std::to_string(content.size()));
    }
}

} // namespace KR::mcap
