#pragma once

#include "krmotionextractor.hpp"

#include <krplatform/krbroker.hpp>

#include <string>
#include <vector>

/// One picture of every camera side by side, with a box around the motion last seen there.
class Picture {
public:
    /// Fetches an image of the camera from the camera service and puts it to the right of the others.
    /// \throws KRError  the camera service has no image
    void add(const boost::shared_ptr<KR::KRBroker>& broker, int camera, const Motion& motion);
    /// \throws std::runtime_error  the file cannot be written
    void writePng(const std::string& path) const;

private:
    struct Tile {
        int width;
        int height;
        std::vector<unsigned char> rgb; // 3 * width * height bytes, row by row
    };
    std::vector<Tile> tiles_;
};
