#pragma once

#include "krinterop/krmcapreader.hpp"

#include <string>
#include <vector>

namespace KR::mcap {

/// A part of the file that is read in one piece: a chunk, or records outside of chunks.
struct Segment {
    std::uint64_t offset;
    std::uint64_t length;
    std::uint64_t startTime; ///< of its earliest message
    std::uint64_t endTime;
    const KRMcapChunkIndex* chunk; ///< null: records outside of chunks
    bool isRead = false;           ///< its damage has been counted
};

/// The contents of a file, except for the messages themselves.
struct Contents {
    std::string profile;
    std::string writerLibrary;
    bool isIndexed = false;
    std::optional<KRMcapStatistics> statistics;
    std::map<std::uint16_t, KRMcapSchema> schemas;
    std::map<std::uint16_t, KRMcapChannel> channels;
    std::vector<KRMcapChunkIndex> chunks;
    std::vector<Segment> segments; ///< in the order of the file
    std::vector<KRMcapAttachmentIndex> attachments;
    std::vector<KRMcapMetadataIndex> metadata;
};

/// Adds a sentence about the damage; only the first few are kept.
void note(KRMcapDamage& damage, std::string text);

/// Reads the summary or, if it is missing or damaged, searches the file.
/// \param contents  must not move: it holds pointers into itself
/// \throws KRMcapError the file cannot be read, or does not begin like an MCAP file
void readContents(KRMcapInput& input, const KRMcapLimits& limits, KRMcapDamage& damage, Contents& contents);

} // namespace KR::mcap
