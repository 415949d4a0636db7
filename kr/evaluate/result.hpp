#pragma once

#include "tool/json.hpp"

#include <krplatform/krvalue.hpp>

#include <cstdint>
#include <string>

namespace KR::tool {

/// One result of a module for an image: a value that it wrote to the memory, or an event that it raised.
struct Result {
    std::uint64_t frame;    ///< number of the image in the recording, from 0
    std::int64_t timeStamp; ///< of the image, microseconds
    bool isEvent;
    std::string name; ///< of the key or the event
    KRValue value;
};

/// Where results go, in the order in which they come.
class ResultSink {
public:
    virtual ~ResultSink() = default;
    ResultSink() = default;
    ResultSink(const ResultSink&) = delete;
    ResultSink& operator=(const ResultSink&) = delete;

    /// Called before an image is delivered to the module; there are no more results for earlier images.
    /// \throws std::runtime_error results cannot be taken, as all operations
    virtual void beginFrame(std::uint64_t frame, int camera, int width, int height) = 0;
    virtual void take(const Result& result) = 0;
    /// After the last result.
    virtual void finish() = 0;
};

} // namespace KR::tool
