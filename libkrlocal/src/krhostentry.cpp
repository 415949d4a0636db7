#include "krhostentry.hpp"

#include "krlocalframe.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

namespace KR {

namespace {

constexpr std::size_t kWord = sizeof(std::uint64_t);
constexpr std::size_t kPage = 4096;
// A writer is done in less than a millisecond unless it is frozen or waits for a processor.
constexpr int kReadAttempts = 200;
constexpr int kQuickAttempts = 20;
constexpr std::chrono::microseconds kReadPause{100};

std::size_t countWords(std::size_t bytes) noexcept {
    return (bytes + kWord - 1) / kWord;
}

} // namespace

// Writer and readers agree on a text with a version number ("sequence lock"; H.-J. Boehm, "Can seqlocks get along with
// programming language memory models?", 2012): the text's words are read with acquire, so the version is read after them.

void KRHostEntryWriter::beat() noexcept {
    __atomic_fetch_add(&entry().beats, 1, __ATOMIC_RELAXED);
}

void KRHostEntryWriter::write(KRHostEntry::State state, std::string_view text) noexcept {
    KRHostEntry& own = entry();
    const std::uint64_t version = __atomic_load_n(&own.version, __ATOMIC_RELAXED);
    __atomic_exchange_n(&own.version, version + 1, __ATOMIC_ACQ_REL);
    __atomic_store_n(&own.state, static_cast<std::uint64_t>(state), __ATOMIC_RELAXED);
    __atomic_store_n(&own.size, text.size(), __ATOMIC_RELAXED);
    for (std::size_t at = 0; at < text.size(); at += kWord) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data() + at, std::min(kWord, text.size() - at));
        __atomic_store_n(&own.text[at / kWord], word, __ATOMIC_RELAXED);
    }
    // Sequentially consistent with readVersion(): of two that write and then read each other's entry, one sees the other.
    __atomic_store_n(&own.version, version + 2, __ATOMIC_SEQ_CST);
}

KRHostEntryReader::KRHostEntryReader(const KRDescriptor& memory) {
    checkForeignMemory(memory, sizeof(KRHostEntry));
    void* const mapped = mmap(nullptr, kPage, PROT_READ, MAP_SHARED, memory.get(), 0);
    if (mapped == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "shared memory of another process: mmap");
    }
    entry_ = static_cast<const KRHostEntry*>(mapped);
    mapped_ = kPage;
}

KRHostEntryReader::~KRHostEntryReader() {
    munmap(const_cast<KRHostEntry*>(entry_), mapped_);
}

void KRHostEntryReader::map(std::size_t size) {
    void* const mapped = mremap(const_cast<KRHostEntry*>(entry_), mapped_, size, MREMAP_MAYMOVE);
    if (mapped == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "shared memory of another process: mremap");
    }
    entry_ = static_cast<const KRHostEntry*>(mapped);
    mapped_ = size;
}

std::uint64_t KRHostEntryReader::readBeats() const noexcept {
    return __atomic_load_n(&entry_->beats, __ATOMIC_RELAXED);
}

std::uint64_t KRHostEntryReader::readVersion() const noexcept {
    return __atomic_load_n(&entry_->version, __ATOMIC_SEQ_CST);
}

std::optional<KRHostEntryReader::Content> KRHostEntryReader::read() {
    auto content = readStable();
    if (mapped_ > kPage) {
        map(kPage);
    }
    return content;
}

std::optional<KRHostEntryReader::Content> KRHostEntryReader::readStable() {
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
        if (attempt >= kQuickAttempts) {
            std::this_thread::sleep_for(kReadPause);
        }
        const std::uint64_t version = readVersion();
        if (version % 2 != 0) {
            continue;
        }
        const std::uint64_t state = __atomic_load_n(&entry_->state, __ATOMIC_ACQUIRE);
        const std::uint64_t size = __atomic_load_n(&entry_->size, __ATOMIC_ACQUIRE);
        const bool isValid = size <= KRHostDirectory::kMaxText && state <= KRHostEntry::Left;
        const std::size_t words = isValid ? countWords(size) : 0;
        if (offsetof(KRHostEntry, text) + words * kWord > mapped_) {
            map(sizeof(KRHostEntry));
        }
        std::string text(words * kWord, '\0');
        for (std::size_t i = 0; i < words; ++i) {
            const std::uint64_t word = __atomic_load_n(&entry_->text[i], __ATOMIC_ACQUIRE);
            std::memcpy(text.data() + i * kWord, &word, kWord);
        }
        if (readVersion() != version) {
            continue;
        }
        if (!isValid) {
            throw KRLocalMalformed("an entry of state " + std::to_string(state) + " with " +
                                   std::to_string(size) + " bytes");
        }
        text.resize(size);
        return Content{version, static_cast<KRHostEntry::State>(state), std::move(text)};
    }
    return std::nullopt;
}

} // namespace KR
