#include "record/recordfile.hpp"

#include "tool/format.hpp"

#include <filesystem>
#include <system_error>
#include <utility>

namespace KR::tool {

namespace {

KRMcapWriterOptions makeOptions(KRMcapCompression compression) {
    KRMcapWriterOptions options;
    options.compression = compression;
    return options;
}

std::string insertNumber(const std::string& path, std::uint64_t number) {
    const std::size_t extension = path.size() - getExtension(path).size();
    return path.substr(0, extension) + format("-%06llu", static_cast<unsigned long long>(number)) +
           path.substr(extension);
}

} // namespace

RecordFile::File::File(const std::string& path, KRMcapCompression compression)
    : out(path, ""), writer(createMcapFile(out.getPath(), path), makeOptions(compression)), recording(writer),
      begun(std::chrono::steady_clock::now()) {}

RecordFile::RecordFile(RecordFileOptions options) : options_(std::move(options)) {
    begin();
}

void RecordFile::begin() {
    while (options_.maxFiles && closed_.size() >= *options_.maxFiles) {
        std::error_code error; // somebody may have moved it
        std::filesystem::remove(closed_.front(), error);
        closed_.pop_front();
        ++removed_;
    }
    ++number_;
    name_ = isSplit() ? insertNumber(options_.path, number_) : options_.path;
    file_ = std::make_unique<File>(name_, options_.compression);
}

bool RecordFile::isFull() const {
    if (file_->writer.getStatistics().messages == 0) {
        return false; // another file would not help
    }
    return (options_.splitSize && file_->writer.getFileSize() >= *options_.splitSize) ||
           (options_.splitDuration &&
            std::chrono::steady_clock::now() - file_->begun >= *options_.splitDuration);
}

void RecordFile::write(const Recorded& recorded) {
    if (isFull()) {
        close();
        begin();
    }
    switch (recorded.kind) {
    case Recorded::Kind::Image:
        file_->recording.writeImage(recorded.camera, *recorded.image);
        break;
    case Recorded::Kind::Value:
        file_->recording.writeMemory(recorded.name, recorded.value, recorded.time);
        break;
    case Recorded::Kind::Event:
        file_->recording.writeEvent(recorded.name, recorded.value, recorded.time);
        break;
    }
}

void RecordFile::flush() {
    file_->writer.flush();
}

void RecordFile::close() {
    file_->writer.close();
    bytesBefore_ += file_->writer.getFileSize();
    file_->out.commit();
    file_.reset(); // one output file at a time
    closed_.push_back(name_);
}

void RecordFile::abandon() noexcept {
    if (file_) {
        try {
            file_->out.commit();
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the first error counts
        }
        file_.reset();
    }
}

std::uint64_t RecordFile::countBytes() const noexcept {
    return bytesBefore_ + (file_ ? file_->writer.getFileSize() : 0);
}

} // namespace KR::tool
