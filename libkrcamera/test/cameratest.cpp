#include "cameratest.hpp"

#include <krplatform/krthread.hpp>

#include <gst/gst.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace KR {

namespace {

constexpr std::chrono::minutes generousBound(1);

} // namespace

Image::Image(const KRValue& value)
    : width(value[0].to<int>()), height(value[1].to<int>()), layers(value[2].to<int>()),
      colorSpace(value[3].to<int>()), seconds(value[4].to<int>()), microseconds(value[5].to<int>()),
      camera(value[7].to<int>()), time_usec(seconds * std::int64_t{1000000} + microseconds),
      pixels(value[6].GetBinary()), angles{value[8].to<float>(), value[9].to<float>(), value[10].to<float>(),
                                           value[11].to<float>()} {
    EXPECT_EQ(value.getSize(), 12U);
    EXPECT_EQ(pixels.size(), static_cast<std::size_t>(width) * height * layers);
}

std::vector<int> Image::at(int x, int y, int bytes) const {
    const unsigned char* first = data() + (static_cast<std::size_t>(y) * width + x) * layers;
    return {first, first + (bytes > 0 ? bytes : layers)};
}

void CameraTest::start(const std::vector<std::string>& sources) {
    service.reset(); // the name must be free
    service = createModule<KRVideoDevice>(broker, "KRVideoDevice", sources);
    proxy = std::make_unique<KRVideoDeviceProxy>(broker);
}

Image CameraTest::fetch(const std::string& id) {
    const auto end = std::chrono::steady_clock::now() + generousBound;
    for (;;) {
        try {
            return Image(proxy->getImageRemote(id));
        } catch (const KRError& error) {
            const bool mayCome = error.getDescription().find("no image within") != std::string::npos;
            if (!mayCome || std::chrono::steady_clock::now() > end) {
                throw;
            }
        }
    }
}

Image CameraTest::fetchInOrder(const std::string& id, int count,
                               const std::function<void(const Image&)>& check) {
    for (std::int64_t last_usec = 0;;) {
        Image image = fetch(id);
        EXPECT_GT(image.time_usec, last_usec);
        last_usec = image.time_usec;
        if (check) {
            check(image);
        }
        if (--count == 0) {
            return image;
        }
    }
}

Image CameraTest::fetchUntil(const std::string& id, const std::function<bool(const Image&)>& condition) {
    const auto end = std::chrono::steady_clock::now() + generousBound;
    for (;;) {
        Image image = fetch(id);
        const bool late = std::chrono::steady_clock::now() > end;
        EXPECT_FALSE(late) << "no such image came";
        if (late || condition(image)) {
            return image;
        }
        proxy->releaseImage(id);
    }
}

void CameraTest::waitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + generousBound;
    while (!condition()) {
        ASSERT_LT(std::chrono::steady_clock::now(), end);
        sleepMilliseconds(5);
    }
}

std::string errorOf(const std::function<void()>& function) {
    try {
        function();
    } catch (const KRError& error) {
        EXPECT_EQ(error.getModule(), "KRVideoDevice");
        return error.getMethod() + ": " + error.getDescription();
    }
    return "no error";
}

TemporaryFolder::TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "krcamera-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void runPipeline(const std::string& description) {
    gst_init(nullptr, nullptr);
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    ASSERT_EQ(error, nullptr) << error->message;
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    const auto wanted = static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    GstMessage* message = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND, wanted);
    EXPECT_TRUE(message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) << description;
    if (message != nullptr) {
        gst_message_unref(message);
    }
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
}

void writeFilm(const std::string& path, const std::string& pattern) {
    runPipeline("videotestsrc num-buffers=10 pattern=" + pattern +
                " ! video/x-raw,format=RGB,width=320,height=240,framerate=30/1 ! videoconvert"
                " ! video/x-raw,format=I420,colorimetry=1:4:0:0 ! jpegenc quality=95 ! avimux"
                " ! filesink location=" +
                path);
}

std::multiset<std::string> getThreadNames() {
    std::multiset<std::string> names;
    std::error_code ended; // a thread may end meanwhile
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", ended)) {
        std::ifstream file(thread.path() / "comm");
        std::string name;
        if (std::getline(file, name)) {
            names.insert(name);
        }
    }
    return names;
}

} // namespace KR
