#pragma once

#include "krlocal/krhostdirectory.hpp"
#include "krsharedmemory.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace KR {

/// Layout of a broker's entry in a KRHostDirectory. One process writes it, others read it at any time. All access is atomic.
struct KRHostEntry {
    enum State : std::uint64_t { Silent, Published, Left };

    std::uint64_t beats;
    std::uint64_t version; // odd while the rest is being changed
    std::uint64_t state;
    std::uint64_t size; // of the text, bytes
    std::array<std::uint64_t, KRHostDirectory::kMaxText / sizeof(std::uint64_t)> text;
};

/// The own entry. One thread at a time.
class KRHostEntryWriter {
public:
    /// Brokers of earlier versions watch the number at the beginning of the memory of this name, as a pulse.
    /// \param broker  identity \throws std::system_error
    explicit KRHostEntryWriter(const std::string& broker)
        : memory_(sizeof(KRHostEntry), "krvision-pulse-" + broker) {}

    int getDescriptor() const noexcept { return memory_.getDescriptor(); }
    void beat() noexcept;
    /// \param text  up to KRHostDirectory::kMaxText bytes
    void write(KRHostEntry::State state, std::string_view text) noexcept;

private:
    KRHostEntry& entry() const noexcept { return *reinterpret_cast<KRHostEntry*>(memory_.data()); }

    KRSharedMemory memory_;
};

/// The entry of another process, which may contain anything. One thread at a time.
///
/// Only its first page stays mapped: most texts fit there, and looking at many entries is faster when they are close together.
class KRHostEntryReader {
public:
    /// \throws KRLocalMalformed not the memory of an entry \throws std::system_error
    explicit KRHostEntryReader(const KRDescriptor& memory);
    ~KRHostEntryReader();
    KRHostEntryReader(const KRHostEntryReader&) = delete;
    KRHostEntryReader& operator=(const KRHostEntryReader&) = delete;

    struct Content {
        std::uint64_t version;
        KRHostEntry::State state;
        std::string text;
    };
    std::uint64_t readBeats() const noexcept;
    std::uint64_t readVersion() const noexcept;
    /// \return nullopt: it is being changed right now; read it later
    /// \throws KRLocalMalformed not valid \throws std::system_error
    std::optional<Content> read();

private:
    std::optional<Content> readStable();
    void map(std::size_t size);

    const KRHostEntry* entry_ = nullptr;
    std::size_t mapped_ = 0; // bytes
};

} // namespace KR
