#include "cameratest.hpp"
#include "certificateauthority.hpp"
#include "httpserver.hpp"
#include "rtspserver.hpp"

#include "../../libkrplatform/test/patience.hpp"

#include <fstream>
#include <sstream>

namespace KR {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

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
    /// Three images in the format of a network camera.
    std::string makeStream() {
        runPipeline("videotestsrc num-buffers=3 pattern=green ! video/x-raw,format=RGB,width=320,height=240"
                    " ! videoconvert ! video/x-raw,format=I420,colorimetry=1:4:0:0 ! jpegenc quality=95"
                    " ! multipartmux boundary=next ! filesink location=" +
                    (folder / "stream"));
        return read(folder / "stream");
    }
    void expectGreen(const Image& image) {
        const std::vector<int> corner = image.at(2, 2);
        EXPECT_GT(corner[1], 220);
        EXPECT_LT(corner[0] + corner[2], 60);
    }
    std::string openError(const std::string& uri) {
        start({uri});
        return errorOf([&] { subscribe(); });
    }
    /// Fetches, stops the server, fetches the remaining images, starts the server, and fetches again.
    template <class Server>
    void expectRecovery(Server& server) {
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
        EXPECT_TRUE(test::eventually([&] { return errorOf([&] { expectGreen(fetch(id)); }) == "no error"; }));
    }
    /// A source that cannot be opened gives an error that names the source and hides its password.
    void expectRefusal(const std::string& uri, const std::string& shown, const std::string& reason) {
        EXPECT_THAT(openError(uri), AllOf(HasSubstr("camera 0 (" + shown + ") cannot be opened: " + reason),
                                          Not(HasSubstr("mistaken"))));
        EXPECT_THAT(proxy->getCameraList()[0].source, shown);
    }

    TemporaryFolder folder;
};

TEST_F(NetworkTest, AFilmOnAServerIsLooped) {
    const HttpServer server("video/x-msvideo", makeFilm(), {});
    start({server.getUri()});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    fetchInOrder(id, 25, [this](const Image& image) { expectGreen(image); });
}

TEST_F(NetworkTest, AFilmOnAServerMayHaveAnyCodingOfAFile) {
    runPipeline("videotestsrc num-buffers=10 pattern=green ! video/x-raw,format=RGB,width=320,height=240,"
                "framerate=30/1 ! videoconvert ! openh264enc ! h264parse ! matroskamux name=film ! filesink "
                "location=" +
                (folder / "film.mkv") + " audiotestsrc num-buffers=10 ! alawenc ! film.");
    const HttpServer server("video/x-matroska", read(folder / "film.mkv"), {});
    start({server.getUri()});
    const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
    expectGreen(fetch(id));
}

TEST_F(NetworkTest, AnUnreachableHttpCameraRecovers) {
    HttpServer server("multipart/x-mixed-replace; boundary=next", makeStream(), {.endless = true});
    expectRecovery(server);
}

TEST_F(NetworkTest, AnRtspCameraShowsMotion) {
    for (const auto coding : {RtspServer::Coding::Jpeg, RtspServer::Coding::H264}) {
        const RtspServer server(coding);
        start({server.getUri()});
        const std::string id = subscribe(0, Resolution::QuarterVga, Space::Rgb);
        const auto countBallPixels = [](const Image& image) {
            int pixels = 0;
            for (int x = 0; x < image.width; ++x) {
                pixels += image.at(x, image.height / 2)[0] > 128 ? 1 : 0;
            }
            return pixels;
        };
        fetchUntil(id, [&](const Image& image) { return countBallPixels(image) > 10; });
        fetchUntil(id, [&](const Image& image) { return countBallPixels(image) == 0; });
        service.reset();
    }
}

TEST_F(NetworkTest, AnUnreachableRtspCameraRecovers) {
    for (const auto coding : {RtspServer::Coding::Jpeg, RtspServer::Coding::H264}) {
        RtspServer server(coding);
        expectRecovery(server);
        service.reset();
    }
}

TEST_F(NetworkTest, AnUnreachableServerIsNamed) {
    std::vector<std::string> uris;
    {
        const HttpServer http("text/plain", "", {});
        const RtspServer rtsp(RtspServer::Coding::Jpeg);
        uris = {http.getUri(), "https" + http.getUri().substr(4), rtsp.getUri()};
    }
    for (const std::string& uri : uris) {
        EXPECT_THAT(openError(uri),
                    AllOf(HasSubstr("subscribeCamera: camera 0 (" + uri + ") cannot be opened: "),
                          HasSubstr("onnect")));
    }
}

TEST_F(NetworkTest, APageThatIsNotAFilmIsRefused) {
    const HttpServer server("text/html", "<html>It was a dark and stormy night.</html>", {});
    EXPECT_THAT(openError(server.getUri()), HasSubstr("cannot be opened: "));
}

TEST_F(NetworkTest, AnUnknownRtspPathIsRefused) {
    const RtspServer server(RtspServer::Coding::Jpeg);
    const std::string uri = server.getUri("", "/attic");
    expectRefusal(uri, uri, "Not found");
}

TEST_F(NetworkTest, APasswordOpensACamera) {
    const HttpServer http("video/x-msvideo", makeFilm(), {.password = "s@cret"});
    const RtspServer rtsp(RtspServer::Coding::Jpeg, "s@cret");
    start({http.getUri("user:s%40cret@"), rtsp.getUri("user:s%40cret@")});
    for (const int camera : {0, 1}) {
        expectGreen(fetch(subscribe(camera, Resolution::QuarterVga, Space::Rgb)));
    }
}

TEST_F(NetworkTest, AWrongPasswordIsRefusedAndHidden) {
    const HttpServer http("video/x-msvideo", makeFilm(), {.password = "secret"});
    expectRefusal(http.getUri("user:mistaken@"), http.getUri("user:***@"), "Unauthorized");
    expectRefusal(http.getUri(), http.getUri(), "Unauthorized");
    const RtspServer rtsp(RtspServer::Coding::Jpeg, "secret");
    expectRefusal(rtsp.getUri("user:mistaken@"), rtsp.getUri("user:***@"), "Unauthorized");
    expectRefusal(rtsp.getUri(), rtsp.getUri(), "Unauthorized");
}

TEST_F(NetworkTest, AServerWithATrustedCertificateIsACamera) {
    const CertificateAuthority authority;
    authority.trust();
    HttpServer server("multipart/x-mixed-replace; boundary=next", makeStream(),
                      {.endless = true, .certificate = authority.certify("127.0.0.1")});
    expectRecovery(server);
}

TEST_F(NetworkTest, NothingIsRequestedFromAServerWithAnUntrustedCertificate) {
    const CertificateAuthority authority;
    const std::string reason = "its certificate is not trusted: ";
    const HttpServer server("video/x-msvideo", makeFilm(), {.certificate = authority.certify("127.0.0.1")});
    expectRefusal(server.getUri(), server.getUri(), reason + "it is signed by an unknown authority");
    authority.trust();
    const HttpServer other("video/x-msvideo", makeFilm(), {.certificate = authority.certify("127.0.0.2")});
    expectRefusal(other.getUri(), other.getUri(), reason + "it belongs to another host");
    EXPECT_EQ(server.getRequests() + other.getRequests(), 0);
}

} // namespace KR
