#pragma once

#include <krplatform/krbroker.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krimage.hpp>

#include <memory>
#include <string>
#include <vector>

/// One picture of every camera side by side, with what an extractor found in just these images.
class Picture {
public:
    /// Fetches an image of the camera from the camera service, finds in the memory what the extractor wrote about this
    /// image, draws both with a caption, and puts them to the right of the others.
    /// \param source  of the camera, for the caption
    /// \throws KRError  the camera service has no image
    /// \throws std::runtime_error  the extractor wrote nothing about any of many images
    void add(const boost::shared_ptr<KR::KRBroker>& broker, int camera, const std::string& source,
             const std::string& extractor);
    /// \throws std::runtime_error  the file cannot be written
    void writePng(const std::string& path) const;

private:
    std::vector<std::unique_ptr<KR::KRImage>> tiles_; // RGB
};
