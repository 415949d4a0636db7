#include "webtest.hpp"

#include "krjpeg.hpp"

#include <krvision/krannotations.hpp>
#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <gmock/gmock.h>

#include <cstdio>
#include <cstdlib>

#include <jpeglib.h> // needs <cstdio> before it

namespace KR {
namespace {

using namespace test;
using testing::HasSubstr;

struct Decoded {
    int width = 0;
    int height = 0;
    int components = 0;
    std::vector<unsigned char> pixels; // R G B, or grey
};

// Ends the program if it is not a JPEG.
Decoded decode(std::string_view jpeg) {
    jpeg_error_mgr errors;
    jpeg_decompress_struct codec = {};
    codec.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&codec);
    jpeg_mem_src(&codec, reinterpret_cast<const unsigned char*>(jpeg.data()), jpeg.size());
    jpeg_read_header(&codec, TRUE);
    jpeg_start_decompress(&codec);
    Decoded decoded{static_cast<int>(codec.output_width),
                    static_cast<int>(codec.output_height),
                    codec.output_components,
                    {}};
    decoded.pixels.resize(std::size_t{codec.output_width} * codec.output_height * codec.output_components);
    while (codec.output_scanline < codec.output_height) {
        JSAMPROW row = decoded.pixels.data() +
                       std::size_t{codec.output_scanline} * codec.output_width * codec.output_components;
        jpeg_read_scanlines(&codec, &row, 1);
    }
    jpeg_finish_decompress(&codec);
    jpeg_destroy_decompress(&codec);
    return decoded;
}

// Mean difference of levels from the camera's image in RGB or luma.
double compare(const Decoded& decoded, const KRImage& image) {
    EXPECT_EQ(decoded.width, image.width);
    EXPECT_EQ(decoded.height, image.height);
    EXPECT_EQ(decoded.components, image.nbLayers);
    double sum = 0;
    for (std::size_t i = 0; i < decoded.pixels.size(); ++i) {
        sum += std::abs(decoded.pixels[i] - image.data[static_cast<std::ptrdiff_t>(i)]);
    }
    return sum / static_cast<double>(decoded.pixels.size());
}

std::unique_ptr<KRImage> fetch(const boost::shared_ptr<KRBroker>& broker, int resolution, int colorSpace) {
    KRVideoDeviceProxy service(broker);
    const std::string id = service.subscribeCamera("test", 0, resolution, colorSpace, 30);
    std::unique_ptr<KRImage> image(KRImage::fromKRValue(service.getImageRemote(id)));
    service.unsubscribe(id);
    return image;
}

class KRWebPictures : public WebTest {};

TEST_F(KRWebPictures, APictureMatchesTheCamera) {
    startCameras({"test:smpte75"}); // does not move
    startServer();
    const std::unique_ptr<KRImage> image = fetch(broker_, kVGA, kRgbColorSpace);
    for (const char* space : {"yuv422", "rgb", "bgr", "bgrx"}) {
        const HttpAnswer answer =
            get(getPort(), std::string("/camera/0.jpg?resolution=640x480&quality=95&color-space=") + space);
        ASSERT_EQ(answer.status, 200) << answer.body;
        EXPECT_EQ(answer.fields.at("Content-Type"), "image/jpeg");
        EXPECT_LT(compare(decode(answer.body), *image), 2) << space;
    }
}

TEST_F(KRWebPictures, ALumaPictureIsGrey) {
    startCameras({"test:smpte75"});
    startServer();
    const std::unique_ptr<KRImage> image = fetch(broker_, kQVGA, kLumaColorSpace);
    const HttpAnswer answer = get(getPort(), "/camera/0.jpg?resolution=320x240&quality=95&color-space=luma");
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_LT(compare(decode(answer.body), *image), 2);
}

TEST_F(KRWebPictures, OddSizesAreEncodedUpToTheEdges) {
    web::JpegEncoder encoder;
    for (const auto& [width, height] : {std::pair(1, 1), {2, 3}, {17, 5}, {80, 45}, {33, 31}}) {
        KRImage image(width, height, kYUV422ColorSpace, false, 0, 0, 0, 0);
        for (int i = 0; i < width * height; ++i) {
            image.data[2 * i] = 81; // red
            image.data[2 * i + 1] = i % 2 == 0 ? 90 : 240;
        }
        std::string jpeg;
        encoder.append(jpeg, image, 95);
        const Decoded decoded = decode(jpeg);
        ASSERT_EQ(decoded.width, width);
        ASSERT_EQ(decoded.height, height);
        if (width % 2 == 0) { // otherwise rows begin with U and V alternately
            EXPECT_NEAR(decoded.pixels[0], 254, 12);
            EXPECT_NEAR(decoded.pixels.back(), 0, 12);
        }
    }
}

TEST_F(KRWebPictures, AStreamSendsImageAfterImage) {
    startCameras();
    startServer();
    RawConnection connection(getPort());
    ASSERT_TRUE(
        connection.write("GET /camera/0.mjpeg?resolution=160x120 HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
    EXPECT_THAT(connection.readUntil("\r\n\r\n"), HasSubstr("multipart/x-mixed-replace"));
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(connection.readUntil("Content-Type: image/jpeg\r\n"), HasSubstr("--krvision-picture"));
    }
}

TEST_F(KRWebPictures, WithoutViewersNothingIsSubscribed) {
    startCameras();
    startServer();
    EXPECT_EQ(countSubscriptions(), 0U);
    {
        RawConnection connection(getPort());
        ASSERT_TRUE(connection.write("GET /camera/0.mjpeg HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
        EXPECT_THAT(connection.readUntil("image/jpeg"), HasSubstr("image/jpeg"));
        EXPECT_EQ(countSubscriptions(), 1U);
    }
    EXPECT_TRUE(becomesTrue([&] { return countSubscriptions() == 0; }));
}

TEST_F(KRWebPictures, ManyViewersShareOneSubscription) {
    startCameras();
    startServer();
    WebClient client(getPort());
    const std::uint32_t id = client.subscribe("/camera/0/image");
    std::vector<std::unique_ptr<RawConnection>> streams;
    for (int i = 0; i < 5; ++i) {
        streams.push_back(std::make_unique<RawConnection>(getPort()));
        ASSERT_TRUE(streams.back()->write("GET /camera/0.mjpeg HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
        EXPECT_THAT(streams.back()->readUntil("image/jpeg"), HasSubstr("image/jpeg"));
    }
    client.readData(id);
    EXPECT_EQ(countSubscriptions(), 1U);
}

TEST_F(KRWebPictures, AnnotationsOfAModuleAreDrawn) {
    startCameras({"test:black"});
    startServer();
    const auto findBrightest = [&] {
        const Decoded decoded =
            decode(get(getPort(), "/camera/0.jpg?color-space=luma&quality=95&annotations=Finder").body);
        return *std::max_element(decoded.pixels.begin(), decoded.pixels.end());
    };
    EXPECT_LT(findBrightest(), 40);
    KRAnnotations annotations;
    annotations.boxes.push_back({0.25F, 0.25F, 0.75F, 0.75F, "", 1, -1});
    KRMemoryProxy(broker_).insertData("Finder/Annotations", annotations.toKRValue());
    EXPECT_TRUE(becomesTrue([&] { return findBrightest() > 80; }));
}

TEST_F(KRWebPictures, WrongRequestsAreAnsweredWithTheValidValues) {
    startCameras();
    startServer();
    const auto expectRefusal = [&](const std::string& target, int status, const std::string& text) {
        const HttpAnswer answer = get(getPort(), target);
        EXPECT_EQ(answer.status, status) << target;
        EXPECT_THAT(answer.body, HasSubstr(text));
    };
    expectRefusal("/camera/0.jpg?resolution=1x1", 400, "sizes are 160x120");
    expectRefusal("/camera/0.jpg?color-space=pink", 400, "colour spaces are luma");
    expectRefusal("/camera/0.jpg?quality=0", 400, "from 1 to 100");
    expectRefusal("/camera/0.jpg?size=2", 400, "there is no parameter size");
    expectRefusal("/camera/0.jpg?quality=%zz", 400, "malformed escape");
    expectRefusal("/camera/-1.jpg", 404, "/camera/N.jpg");
    expectRefusal("/camera/7.jpg", 503, "camera");
    expectRefusal("/../etc/passwd", 404, "there is no /../etc/passwd");
}

TEST_F(KRWebPictures, ARestartedCameraServiceIsShownAgain) {
    startServer();
    EXPECT_EQ(get(getPort(), "/camera/0.jpg").status, 503);
    startCameras();
    RawConnection stream(getPort());
    ASSERT_TRUE(stream.write("GET /camera/0.mjpeg?resolution=160x120 HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
    const auto readTime_usec = [&] {
        stream.readUntil("X-Timestamp-Usec: ");
        const std::string number = stream.readUntil("\r");
        return number.empty() ? -1 : std::stoll(number);
    };
    EXPECT_GT(readTime_usec(), 0);
    WebClient client(getPort());
    std::uint32_t id = client.subscribe("/camera/0/image");
    client.readData(id);
    cameras_.reset();
    EXPECT_TRUE(client.waitForNoChannel("/camera/0/image"));
    const auto restart = std::chrono::system_clock::now().time_since_epoch();
    startCameras();
    id = client.subscribe("/camera/0/image");
    EXPECT_FALSE(client.readData(id).payload.empty());
    // A stream continues by itself.
    long long time_usec = 0;
    EXPECT_TRUE(becomesTrue([&] {
        time_usec = readTime_usec();
        return time_usec < 0 || std::chrono::microseconds(time_usec) > restart;
    }));
    EXPECT_GT(time_usec, 0);
}

} // namespace
} // namespace KR
