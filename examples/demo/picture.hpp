#pragma once

#include <krplatform/krbroker.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krimage.hpp>

#include <memory>
#include <string>
#include <vector>

/// One picture of every camera side by side, with an extractor's findings in exactly these images.
class Picture {
public:
    /// Fetches an image of the camera, finds the extractor's annotations of this image in the memory, draws both with
    /// a caption, and appends the result on the right.
    /// \param source  of the camera, for the caption
    /// \throws KRError  the camera service has no image
    /// \throws std::runtime_error  the extractor annotated no image of many
    void add(const boost::shared_ptr<KR::KRBroker>& broker, int camera, const std::string& source,
             const std::string& extractor);
    /// \throws std::runtime_error  the file cannot be written
    void writePng(const std::string& path) const;

private:
    std::vector<std::unique_ptr<KR::KRImage>> tiles_; // RGB
};
