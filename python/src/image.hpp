#pragma once

#include <krvision/krimage.hpp>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>

namespace KR::python {

namespace py = pybind11;

/// An image for Python. Used with the interpreter's lock held.
struct PythonImage {
    KRImage image;
    py::object owner = {};  ///< of external pixels: the array; empty if the image owns them
    bool isWritable = true; ///< false: the array is read-only
    py::object pixels = {}; ///< the array created last
};

/// An image that shares the pixels of an array.
/// \throws py::error_already_set TypeError, ValueError: the layout does not allow it
PythonImage makeImage(const py::array& pixels, py::object colorSpace);
/// The pixels as a NumPy array on the image's own memory, which the array keeps.
py::object getPixels(PythonImage& image);
/// \throws KRError the image has no pixels
void requirePixels(const KRImage& image, const char* method);
/// A copy in another colour space: luma, YUV422, RGB, BGR or BGRx. \throws KRError another colour space
KRImage convert(const KRImage& image, int colorSpace);
void writeImage(const KRImage& image, const std::string& path);

void bindImage(py::module_& m);
void bindVideo(py::module_& m);
void bindCameras(py::module_& m);

} // namespace KR::python
