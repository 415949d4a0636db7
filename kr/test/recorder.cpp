// Records until killed: RESOLUTION STREAMS PATH. Standard output is a file whose first 4 bytes hold, at any moment,
// how many chunks the recorder has finished.

#include "oxvfile.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include <sys/mman.h>
#include <unistd.h>

int main(int, char** argv) {
    const int resolution = std::atoi(argv[1]);
    const auto streams = static_cast<unsigned>(std::atoi(argv[2]));
    int width = 0, height = 0;
    KR::setSizeFromResolution(resolution, width, height);
    const std::size_t size = static_cast<std::size_t>(2) * width * height;
    constexpr unsigned kDifferent = 8; // images; making one takes longer than recording it
    std::vector<KR::test::Bytes> images(kDifferent * streams);
    for (unsigned i = 0; i < images.size(); ++i) {
        KR::test::Bytes chunk;
        KR::test::appendChunk(chunk, i / streams, i % streams, size);
        images[i] = chunk;
    }

    void* shared =
        ::mmap(nullptr, sizeof(std::uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED, STDOUT_FILENO, 0);
    if (shared == MAP_FAILED) {
        return 1;
    }
    std::atomic_ref<std::uint32_t> done(*static_cast<std::uint32_t*>(shared));

    KR::KRVideo video;
    video.recordVideo(
        argv[3], 0,
        std::vector<KR::streamHeader>(streams, {static_cast<std::uint32_t>(width),
                                                static_cast<std::uint32_t>(height), KR::test::kYuv422, 8}));
    for (unsigned chunk = 0;; ++chunk) {
        const unsigned frame = chunk / streams;
        const unsigned stream = chunk % streams;
        KR::test::Bytes& image = images[frame % kDifferent * streams + stream];
        video.write(reinterpret_cast<char*>(image.data()), static_cast<int>(size),
                    KR::test::timeStampOf(frame, stream), static_cast<char>(stream), 0.5f, 0.25f, -0.5f,
                    -0.25f);
        done = chunk + 1;
    }
}
