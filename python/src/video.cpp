#include "image.hpp"
#include "interpreter.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krmutex.hpp>
#include <krvision/kroxvfile.hpp>
#include <krvision/krvideo.hpp>

#include <pybind11/stl.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <tuple>
#include <vector>

namespace KR::python {

namespace {

// Errors of files as krvision.Error; the interpreter's lock is released.
template <class Function>
auto access(const char* method, Function function) {
    try {
        return unlocked(std::move(function));
    } catch (const KRError&) {
        throw;
    } catch (const std::runtime_error& error) {
        throw KRError("Video", method, error.what());
    }
}

/// Reads a recording. Its operations may run on several threads.
class Reader {
public:
    explicit Reader(const std::string& path)
        : file_(access("Video", [&] {
              auto file = std::make_unique<KROxvFile>(path);
              file->requireFrames();
              return file;
          })) {}

    const KROxvFile& getFile() const noexcept { return *file_; }

    PythonImage read(std::uint64_t frame, std::size_t stream) {
        if (frame >= file_->countCompleteFrames() || stream >= file_->getStreams().size()) {
            throw py::index_error("frame " + std::to_string(frame) + " of stream " + std::to_string(stream) +
                                  " does not exist; there are " +
                                  std::to_string(file_->countCompleteFrames()) + " frames of " +
                                  std::to_string(file_->getStreams().size()) + " streams");
        }
        return {access("frame", [&] {
            const KRLock lock(mutex_);
            KRImage image = file_->makeImage(stream);
            file_->readImage(image, frame, stream);
            return image;
        })};
    }

private:
    const std::unique_ptr<KROxvFile> file_;
    KRMutex mutex_; // held while images are read
};

using Stream = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>; // width, height, colour space

/// Writes a recording.
class Writer {
public:
    Writer(const std::string& path, const std::vector<Stream>& streams)
        : path_(path), writer_(access("record", [&] {
              std::vector<streamHeader> headers;
              for (const auto& [width, height, colorSpace] : streams) {
                  headers.push_back({width, height, colorSpace, 8});
              }
              return std::make_unique<KROxvWriter>(path, headers);
          })) {}
    ~Writer() {
        try {
            close();
        } catch (const std::exception&) { // cannot be reported here; close() does
        }
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void write(const std::vector<PythonImage*>& frame) {
        std::vector<const KRImage*> images;
        for (const PythonImage* each : frame) {
            if (each == nullptr) {
                throw py::type_error("None is not an Image");
            }
            requirePixels(each->image, "write");
            images.push_back(&each->image);
        }
        access("write", [&] {
            const KRLock lock(mutex_);
            if (!writer_) {
                throw KRError("Video", "write", path_ + ": the recording is closed");
            }
            if (!writer_->hasRoom()) {
                throw KRError("Video", "write", path_ + ": a recording has at most 4 GiB");
            }
            try {
                writer_->write(images);
            } catch (...) {
                writer_->removeCutFrame();
                throw;
            }
        });
    }
    std::uint32_t countFrames() {
        return access("frames", [&] {
            const KRLock lock(mutex_);
            return writer_ ? writer_->countFrames() : frames_;
        });
    }
    void close() {
        access("close", [&] {
            const KRLock lock(mutex_);
            if (writer_) {
                frames_ = writer_->countFrames();
                writer_->close();
                writer_.reset();
            }
        });
    }

private:
    const std::string path_;
    KRMutex mutex_;
    std::unique_ptr<KROxvWriter> writer_ KR_GUARDED_BY(mutex_); // null once closed
    std::uint32_t frames_ KR_GUARDED_BY(mutex_) = 0;            // once closed
};

} // namespace

void bindVideo(py::module_& m) {
    py::class_<Reader>(m, "VideoReader")
        .def(py::init<const std::string&>(), py::arg("path"))
        .def("frames", [](const Reader& self) { return self.getFile().countCompleteFrames(); })
        .def("streams",
             [](const Reader& self) {
                 std::vector<Stream> streams;
                 for (const KROxvStream& stream : self.getFile().getStreams()) {
                     streams.emplace_back(stream.width, stream.height, stream.colorSpace);
                 }
                 return streams;
             })
        .def("read", &Reader::read, py::arg("frame"), py::arg("stream"));
    py::class_<Writer>(m, "VideoWriter")
        .def(py::init<const std::string&, const std::vector<Stream>&>(), py::arg("path"), py::arg("streams"))
        .def("write", &Writer::write, py::arg("images"))
        .def("frames", &Writer::countFrames)
        .def("close", &Writer::close);
}

} // namespace KR::python
