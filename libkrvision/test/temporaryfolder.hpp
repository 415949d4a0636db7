#pragma once

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::test {

using Bytes = std::vector<unsigned char>;

/// A folder for the files of one test, removed at the end.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "krvision-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        path_ = name;
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string path(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

inline Bytes readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeAll(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline void append(Bytes& bytes, const void* from, std::size_t size) {
    const std::size_t end = bytes.size();
    bytes.resize(end + size);
    std::memcpy(bytes.data() + end, from, size);
}

template <class T>
void append(Bytes& bytes, T field) {
    append(bytes, &field, sizeof field);
}

} // namespace KR::test
