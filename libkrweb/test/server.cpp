// A web server with a camera whose picture does not move, to test against other implementations of the protocol.
//   krweb_server SNAPSHOT
// Writes an image of the camera as R G B, prints the port, and ends when standard input ends.

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krweb/krweb.hpp>

#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

int main(int argc, char** argv) try {
    using namespace KR;
    if (argc != 2) {
        std::fputs("usage: krweb_server SNAPSHOT\n", stderr);
        return 2;
    }
    const auto broker = KRBroker::create("local:");
    const auto cameras =
        createModule<KRVideoDevice>(broker, "KRVideoDevice", std::vector<std::string>{"test:smpte75"});
    KRVideoDeviceProxy service(broker);
    const std::string id = service.subscribeCamera("snapshot", 0, kVGA, kRgbColorSpace, 30);
    const std::unique_ptr<KRImage> image(KRImage::fromKRValue(service.getImageRemote(id)));
    service.unsubscribe(id);
    std::ofstream(argv[1], std::ios::binary)
        .write(reinterpret_cast<const char*>(image->data.get()),
               std::streamsize{3} * image->width * image->height);
    KRMemoryProxy(broker).insertData("Sample/Value", 7);
    const KRWebServer server(broker, {.address = "127.0.0.1:0"});
    std::printf("%d\n", server.getPort());
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "krweb_server: %s\n", error.what());
    return 1;
}
