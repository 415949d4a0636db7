#include "image.hpp"

#include "errors.hpp"
#include "interpreter.hpp"
#include "values.hpp"

#include <krplatform/krerror.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/kroxifile.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace KR::python {

namespace {

using Pixels = boost::shared_ptr<unsigned char[]>;

std::string describeShape(const py::array& array) {
    std::string text = py::str(py::handle(array.dtype())).cast<std::string>() + " (";
    for (py::ssize_t i = 0; i < array.ndim(); ++i) {
        text += (i > 0 ? ", " : "") + std::to_string(array.shape(i));
    }
    return text + ")";
}

int guessColorSpace(const py::array& pixels) {
    const py::ssize_t layers = pixels.ndim() == 2 ? 1 : pixels.shape(2);
    switch (layers) {
    case 1:
        return kLumaColorSpace;
    case 2:
        return kYUV422ColorSpace;
    case 3:
        return kBgrColorSpace;
    case 4:
        return kBgrxColorSpace;
    default:
        refuse(PyExc_ValueError, "no colour space has " + std::to_string(layers) +
                                     " bytes per pixel; name one with color_space");
    }
}

void checkLayout(const py::array& pixels) {
    const std::string shapes = "; pixels are uint8 (height, width) or (height, width, bytes per pixel)";
    if (!py::isinstance<py::array_t<std::uint8_t>>(pixels) || (pixels.ndim() != 2 && pixels.ndim() != 3)) {
        refuse(PyExc_TypeError, "an array of " + describeShape(pixels) + " is not an image" + shapes);
    }
    constexpr py::ssize_t kLongest = 65536;
    for (int i = 0; i < 2; ++i) {
        if (pixels.shape(i) < 1 || pixels.shape(i) > kLongest) {
            refuse(PyExc_ValueError, "an array of " + describeShape(pixels) +
                                         " is not an image; height and width are 1 to 65536");
        }
    }
    if (pixels.nbytes() > 2147483647) {
        refuse(PyExc_ValueError, "an array of " + std::to_string(pixels.nbytes()) +
                                     " bytes is too large for an image; it has at most 2147483647");
    }
    if ((pixels.flags() & py::array::c_style) == 0) {
        refuse(PyExc_ValueError,
               "the rows of the array have gaps or another order, which those of an image do not "
               "have; numpy.ascontiguousarray() copies them");
    }
}

py::tuple getAngles(const PythonImage& self) {
    const KRImage& image = self.image;
    return py::make_tuple(image.leftAngle, image.topAngle, image.rightAngle, image.bottomAngle);
}

void setAngles(PythonImage& self, const std::array<float, 4>& angles) {
    KRImage& image = self.image;
    image.leftAngle = angles[0];
    image.topAngle = angles[1];
    image.rightAngle = angles[2];
    image.bottomAngle = angles[3];
}

PythonImage makeBlank(int width, int height, int colorSpace) {
    constexpr int kLongest = 65536;
    if (!isColorSpaceValid(colorSpace)) {
        refuse(PyExc_ValueError,
               "colour space " + std::to_string(colorSpace) + " does not exist; colour spaces are 0 to 26");
    }
    if (width < 1 || height < 1 || width > kLongest || height > kLongest ||
        std::int64_t{width} * height * getNumLayersInColorSpace(colorSpace) > 2147483647) {
        refuse(PyExc_ValueError,
               "an image of " + std::to_string(width) + "x" + std::to_string(height) +
                   " pixels is not possible; sides are 1 to 65536, and it has at most 2147483647 "
                   "bytes");
    }
    return {KRImage(width, height, colorSpace, false, 0.0F, 0.0F, 0.0F, 0.0F)};
}

PythonImage readImage(const std::string& path) {
    try {
        return {unlocked([&] { return readOxi(path); })};
    } catch (const std::runtime_error& error) {
        throw KRError("Image", "read", error.what());
    }
}

void requireWritable(const PythonImage& self, const char* method) {
    if (!self.isWritable) {
        throw KRError("Image", method, "the array of its pixels is read-only");
    }
}

void draw(PythonImage& self, py::handle annotations) {
    requirePixels(self.image, "draw");
    requireWritable(self, "draw");
    drawAnnotations(self.image, KRAnnotations::fromKRValue(toValue(annotations)));
}

py::object getRegion(PythonImage& self, int x, int y, int width, int height) {
    const KRImage& image = self.image;
    if (x < 0 || y < 0 || width < 1 || height < 1 || x > image.width - width || y > image.height - height) {
        refuse(PyExc_ValueError, "the region of " + std::to_string(width) + "x" + std::to_string(height) +
                                     " pixels at " + std::to_string(x) + ", " + std::to_string(y) +
                                     " is not inside the image, which has " + std::to_string(image.width) +
                                     "x" + std::to_string(image.height));
    }
    if (image.colorSpace == kYUV422ColorSpace && x % 2 != 0) {
        refuse(PyExc_ValueError, "the region begins in column " + std::to_string(x) +
                                     "; two pixels of YUV422 share their colour, so it must be even");
    }
    const auto pixels = getPixels(self);
    return pixels[py::make_tuple(py::slice(y, y + height, 1), py::slice(x, x + width, 1))];
}

} // namespace

PythonImage makeImage(const py::array& pixels, py::object colorSpace) {
    checkLayout(pixels);
    const int layers = pixels.ndim() == 2 ? 1 : static_cast<int>(pixels.shape(2));
    const int wanted = colorSpace.is_none() ? guessColorSpace(pixels) : colorSpace.cast<int>();
    if (!isColorSpaceValid(wanted) || getNumLayersInColorSpace(wanted) != layers) {
        refuse(PyExc_ValueError,
               "colour space " + std::to_string(wanted) +
                   (isColorSpaceValid(wanted) ? " has " + std::to_string(getNumLayersInColorSpace(wanted)) +
                                                    " bytes per pixel, the array " + std::to_string(layers)
                                              : std::string(" does not exist; colour spaces are 0 to 26")));
    }
    PythonImage made{KRImage(static_cast<int>(pixels.shape(1)), static_cast<int>(pixels.shape(0)), wanted,
                             true, 0.0F, 0.0F, 0.0F, 0.0F),
                     pixels, pixels.writeable()};
    // Only written to if the array is writable.
    made.image.data =
        KRImage::externalData(static_cast<unsigned char*>(const_cast<void*>(pixels.data()))); // NOLINT
    return made;
}

void requirePixels(const KRImage& image, const char* method) {
    if (!image.data) {
        throw KRError("Image", method, "the image has no pixels");
    }
}

py::object getPixels(PythonImage& self) {
    if (self.pixels) {
        return self.pixels;
    }
    const KRImage& image = self.image;
    requirePixels(image, "pixels");
    const CodeRun running; // the first array of the process imports NumPy
    const std::array<py::ssize_t, 3> shape{image.height, image.width, image.nbLayers};
    py::object owner = self.owner;
    if (!owner) {
        owner = py::capsule(new Pixels(image.data), [](void* held) { delete static_cast<Pixels*>(held); });
    }
    const std::ptrdiff_t dimensions = image.nbLayers == 1 ? 2 : 3;
    py::array array(py::dtype::of<std::uint8_t>(), {shape.begin(), shape.begin() + dimensions},
                    image.data.get(), owner);
    if (!self.isWritable) {
        array.attr("flags").attr("writeable") = false;
    }
    self.pixels = array;
    return self.pixels;
}

void bindImage(py::module_& m) {
    using Roi = KRImage::ROI;
    py::class_<PythonImage>(m, "Image",
                            R"(One camera image: its geometry, origin, capture time and pixels.

Image(array) shares the pixels of a NumPy array: uint8, (height, width) or (height, width,
bytes per pixel), rows without gaps. Without color_space, that of as many bytes: luma, YUV422, BGR, BGRx.
One thread uses an image at a time.

Raises:
    TypeError, ValueError: the layout of the array is not that of an image.)")
        .def(py::init(&makeImage), py::arg("pixels"), py::arg("color_space") = py::none())
        .def_static("blank", &makeBlank, py::arg("width"), py::arg("height"), py::arg("color_space"),
                    "A black image of a size in pixels. Raises ValueError: an impossible size.")
        .def_static("read", &readImage, py::arg("path"),
                    "Reads an oxi file. Raises Error: it cannot be read, or is damaged.")
        .def(
            "write",
            [](const PythonImage& self, const std::string& path) {
                requirePixels(self.image, "write");
                unlocked([&] { writeImage(self.image, path); });
            },
            py::arg("path"),
            "Writes an oxi file, or for viewing a ppm: the extension selects. Raises Error: it cannot be "
            "written.")
        .def(
            "to",
            [](const PythonImage& self, int colorSpace) {
                requirePixels(self.image, "to");
                return PythonImage{unlocked([&] { return convert(self.image, colorSpace); })};
            },
            py::arg("color_space"),
            R"(A copy in another colour space: luma, YUV422, RGB, BGR or BGRx.

YUV422 and BGR become each other by the library's conversions, which are off in strong colours by design. Luma is the Y
of YUV422. Raises Error: another colour space.)")
        .def(
            "copy",
            [](const PythonImage& self) {
                requirePixels(self.image, "copy");
                return PythonImage{unlocked([&] { return self.image.deepCopy(); })};
            },
            "A copy with its own pixels.")
        .def("draw", &draw, py::arg("annotations"), "Draws the value of Annotations; see Annotations.draw().")
        .def("region", &getRegion, py::arg("x"), py::arg("y"), py::arg("width"), py::arg("height"),
             "A view of a rectangle of the pixels, with the strides of the image. Raises ValueError: it is "
             "not inside the "
             "image; in YUV422, it begins in an odd column.")
        .def_property_readonly("pixels", &getPixels,
                               R"(The pixels as a NumPy array on the image's own memory, not a copy.

uint8: (height, width) for luma and all others of one byte per pixel; (height, width, 2) for YUV422, which has Y and U,
then Y and V of two neighbours; (height, width, 3) for RGB, BGR and others; (height, width, 4) for BGRx. The array keeps
the memory for as long as it exists.)")
        .def_property_readonly(
            "width", [](const PythonImage& self) { return self.image.width; }, "Pixels.")
        .def_property_readonly(
            "height", [](const PythonImage& self) { return self.image.height; }, "Pixels.")
        .def_property_readonly(
            "layers", [](const PythonImage& self) { return self.image.nbLayers; }, "Bytes per pixel.")
        .def_property_readonly(
            "color_space", [](const PythonImage& self) { return self.image.colorSpace; },
            "Code of the colour space: a ColorSpace, or another one up to 26.")
        .def_property(
            "time_stamp", [](const PythonImage& self) { return self.image.timeStamp; },
            [](PythonImage& self, std::int64_t timeStamp) { self.image.timeStamp = timeStamp; },
            "Capture time, microseconds since the Unix epoch; -1: not set.")
        .def_property(
            "camera", [](const PythonImage& self) { return static_cast<int>(self.image.cameraId); },
            [](PythonImage& self, int camera) {
                if (camera < -128 || camera > 127) {
                    refuse(PyExc_ValueError, "camera " + std::to_string(camera) + " is not -128 to 127");
                }
                self.image.cameraId = static_cast<signed char>(camera);
            },
            "Index of the camera, -128 to 127.")
        .def_property("angles", &getAngles, &setAngles,
                      "Field of view: left, top, right and bottom edge, radians; left and top are positive.")
        .def_property(
            "rois", [](const PythonImage& self) { return self.image.rois; },
            [](PythonImage& self, std::vector<Roi> rois) { self.image.rois = std::move(rois); },
            "Regions of interest, for you: a list, to be set as a whole.");
    py::class_<Roi>(m, "Roi", "A region of interest of an image: a rectangle in pixels.")
        .def(py::init<int, int, int, int>(), py::arg("x"), py::arg("y"), py::arg("width"), py::arg("height"))
        .def_readwrite("x", &Roi::x, "Left column.")
        .def_readwrite("y", &Roi::y, "Top row.")
        .def_readwrite("width", &Roi::w, "Pixels.")
        .def_readwrite("height", &Roi::h, "Pixels.");
    m.def(
        "check_annotations",
        [](py::handle value) { return toPython(KRAnnotations::fromKRValue(toValue(value)).toKRValue()); },
        py::arg("value"), "The value of annotations, checked.");
    m.def(
        "resolution_size",
        [](int resolution) {
            int width = 0, height = 0;
            setSizeFromResolution(resolution, width, height);
            return py::make_tuple(width, height);
        },
        py::arg("resolution"), "Width and height of a resolution in pixels; -1, -1 for another code.");
    m.def("color_space_layers", &getNumLayersInColorSpace, py::arg("color_space"),
          "Bytes per pixel of a colour space; -1 for another code.");
}

} // namespace KR::python
