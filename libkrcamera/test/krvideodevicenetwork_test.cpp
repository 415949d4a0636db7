#include "cameratest.hpp"
#include "httpserver.hpp"

#include "../../libkrplatform/test/patience.hpp"

#include <fstream>
#include <sstream>

namespace KR {

using testing::AllOf;
using testing::HasSubstr;

class NetworkTest : public CameraTest {
protected:
    static std::string read(const std::string& path) {
        std::ostringstream content;
        content << std::ifstream(path, std::ios::binary).rdbuf();
        return content.str();
    }
    /// Ten images of one colour, as a file.
    std::string makeFilm() {
        writeFilm(folder / "film.avi", "green");
        return read(folder / "film.avi");
    }
    /// Three images as a network camera sends them.
    std::string makeStream() {
        runPipeline("videotestsrc num-buffers=3 pattern=green ! video/x-raw,format=RGB,width=320,height=240"
                    " ! videoconvert ! video/x-raw,format=I420,colorimetry=1:4:0:0 ! jpegenc quality=95"
                    " ! multipartmux boundary=next ! filesink location=" +
                    (folder / "stream"));
        return read(folder / "stream");
    }
    void expectGreen(const Image& image) {
        EXPECT_GT(image.at(160, 120)[1], 245);
        EXPECT_LT(image.at(160, 120)[0], 20);
    }

    TemporaryFolder folder;
};

TEST_F(NetworkTest, AFilmOnAServerIsPlayedAgainAndAgain) {
    const HttpServer server("video/x-msvideo", makeFilm(), false);
    start({server.getUri()});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    std::int64_t last = 0;
    for (int i = 0; i < 25; ++i) {
        const Image image = fetchUntil(id, [](const Image&) { return true; });
        EXPECT_GT(image.time_usec, last);
        last = image.time_usec;
        expectGreen(image);
    }
}

TEST_F(NetworkTest, ACameraThatGoesOffTheNetIsThereAgainWhenItIsBack) {
    HttpServer server("multipart/x-mixed-replace; boundary=next", makeStream(), true);
    start({server.getUri()});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    for (int i = 0; i < 5; ++i) {
        expectGreen(fetch(id));
    }
    server.stop();
    waitUntil([&] { return !proxy->getCameraList()[0].failure.empty(); });
    std::string error;
    EXPECT_TRUE(test::eventually([&] { // an image may be left
        error = errorOf([&] { fetch(id); });
        return error != "no error";
    }));
    EXPECT_THAT(error, HasSubstr("camera 0 (" + server.getUri() + ") has failed: "));
    server.start();
    EXPECT_TRUE(test::eventually([&] { return errorOf([&] { fetch(id); }) == "no error"; }));
}

TEST_F(NetworkTest, AServerThatIsNotThereIsNamed) {
    std::string uri;
    {
        const HttpServer server("text/plain", "", false);
        uri = server.getUri();
    }
    start({uri});
    EXPECT_THAT(
        errorOf([&] { subscribe(); }),
        AllOf(HasSubstr("subscribeCamera: camera 0 (" + uri + ") cannot be opened: "), HasSubstr("onnect")));
}

TEST_F(NetworkTest, APageThatIsNoFilmIsRefused) {
    const HttpServer server("text/html", "<html>It was a dark and stormy night.</html>", false);
    start({server.getUri()});
    EXPECT_THAT(errorOf([&] { subscribe(); }), HasSubstr("cannot be opened: "));
}

} // namespace KR
