#pragma once

#include "evaluate/resultfile.hpp"

#include <cstdint>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace KR::tool {

/// Compares results with earlier ones, frame by frame. Keeps the results of one frame in memory.
class Comparison : public ResultSink {
public:
    static constexpr std::size_t kMostShown = 10;

    /// \param path       .jsonl file with the earlier results
    /// \param tolerance  numbers that differ by no more are the same
    /// \throws std::runtime_error with the path: it cannot be read, or does not begin with a result
    Comparison(const std::string& path, double tolerance);

    void beginFrame(std::uint64_t frame, int camera, int width, int height) override;
    void take(const Result& result) override;
    void finish() override;

    /// Keys and events that differ, counted once per frame; complete after finish().
    std::uint64_t countDifferences() const noexcept { return differences_; }
    std::uint64_t countFrames() const noexcept { return frames_; } ///< that differ
    /// A line for each of the first differences.
    const std::vector<std::string>& getShown() const noexcept { return shown_; }

private:
    /// Results for one frame, by "is an event" and name, each in order.
    using Said = std::map<std::pair<bool, std::string>, std::vector<Json>>;

    /// Compares the frames before this one.
    void compareUntil(std::optional<std::uint64_t> frame);
    void compare(std::uint64_t frame, const Said& expected, const Said& actual);
    void compare(std::uint64_t frame, const std::pair<bool, std::string>& what,
                 const std::vector<Json>& expected, const std::vector<Json>& actual);
    void readNext();
    [[noreturn]] void fail(const std::string& why) const;

    const std::string path_;
    const double tolerance_;
    std::ifstream file_;
    std::uint64_t line_ = 0;         // number of the line read last
    std::optional<ReadResult> next_; // read ahead; nullopt: the file has ended
    std::uint64_t frame_ = 0;        // that of actual_
    Said actual_;
    std::uint64_t differences_ = 0;
    std::uint64_t frames_ = 0;
    std::vector<std::string> shown_;
};

/// Whether two values are equal, with numbers compared up to the tolerance.
bool isSame(const Json& a, const Json& b, double tolerance);

} // namespace KR::tool
