#pragma once

#include "krinterop/krmcapreader.hpp"
#include "krinterop/krmcapwriter.hpp"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace KR::test {

using Bytes = std::vector<unsigned char>;

inline KRBytes toBytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

/// A file in memory.
class MemoryInput : public KRMcapInput {
public:
    explicit MemoryInput(Bytes bytes) : bytes_(std::move(bytes)) {}
    std::uint64_t getSize() override { return bytes_.size(); }
    std::size_t readAt(void* to, std::size_t size, std::uint64_t offset) override {
        if (offset >= bytes_.size()) {
            return 0;
        }
        const std::size_t read = std::min<std::size_t>(size, bytes_.size() - offset);
        std::memcpy(to, bytes_.data() + offset, read);
        return read;
    }

private:
    const Bytes bytes_;
};

/// Collects what is written; the disk is full after that many bytes.
class MemoryOutput : public KRMcapOutput {
public:
    explicit MemoryOutput(Bytes& bytes, std::size_t room = SIZE_MAX) : bytes_(bytes), room_(room) {}
    void append(std::span<const KRBytes> pieces) override {
        for (const KRBytes piece : pieces) {
            const std::size_t fits = std::min(piece.size(), room_ - bytes_.size());
            bytes_.insert(bytes_.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(fits));
            if (fits < piece.size()) {
                throw KRMcapError("disk.mcap: cannot be written: No space left on device");
            }
        }
    }
    void close() override { ++closed; }
    int closed = 0;

private:
    Bytes& bytes_;
    const std::size_t room_;
};

/// A message in the form that tests compare.
struct Read {
    std::string topic;
    std::uint32_t sequence;
    std::uint64_t logTime;
    std::string data;
    friend bool operator==(const Read&, const Read&) = default;
};

inline std::vector<Read> readAllMessages(KRMcapReader& reader) {
    std::vector<Read> all;
    for (KRMcapMessage message; reader.next(message);) {
        all.push_back({message.channel->topic, message.sequence, message.logTime,
                       std::string(message.data.begin(), message.data.end())});
    }
    return all;
}

} // namespace KR::test
