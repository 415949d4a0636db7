#pragma once

#include "record/recordqueue.hpp"
#include "tool/outputfile.hpp"

#include <krinterop/krmcaptopics.hpp>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

namespace KR::tool {

/// How a recording is written.
struct RecordFileOptions {
    std::string path; ///< ends in .mcap
    KRMcapCompression compression = KRMcapCompression::None;
    std::optional<std::uint64_t> splitSize = {};            ///< bytes after which another file is begun
    std::optional<std::chrono::seconds> splitDuration = {}; ///< time after which another file is begun
    std::optional<std::size_t> maxFiles = {}; ///< at least 1; the oldest file makes room for another one
};

/// A recording in one MCAP file, or in several: with a split, a.mcap stands for a-000001.mcap, a-000002.mcap and so on.
/// Reentrant.
class RecordFile {
public:
    /// Creates the first file. \throws std::runtime_error with the path: it cannot be written, as all operations
    explicit RecordFile(RecordFileOptions options);

    void write(const Recorded& recorded);
    /// Passes buffered data to the operating system, so that killing the process does not lose it.
    void flush();
    /// Closes the file that is open.
    void close();
    /// Gives the open file its final name despite an error. Throws nothing.
    void abandon() noexcept;

    std::uint64_t countBytes() const noexcept; ///< of all files, as far as they have been written
    std::uint64_t countFiles() const noexcept { return number_; } ///< those removed included
    std::uint64_t countRemoved() const noexcept { return removed_; }

private:
    struct File {
        explicit File(const std::string& path, KRMcapCompression compression);
        OutputFile out;
        KRMcapWriter writer;
        KRMcapRecording recording;
        std::chrono::steady_clock::time_point begun;
    };

    bool isSplit() const noexcept { return options_.splitSize || options_.splitDuration; }
    bool isFull() const;
    void begin();

    const RecordFileOptions options_;
    std::unique_ptr<File> file_;
    std::uint64_t number_ = 0;
    std::uint64_t removed_ = 0;
    std::uint64_t bytesBefore_ = 0; // of the files before this one
    std::string name_;              // of the file that is open
    std::deque<std::string> closed_;
};

} // namespace KR::tool
