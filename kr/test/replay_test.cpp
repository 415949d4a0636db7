// kr replay

#include "krsystem.hpp"
#include "oxvfile.hpp"

#include <krinterop/krmcaptopics.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

#include <poll.h>
#include <pty.h>

namespace KR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class KrReplay : public KrSystem {
protected:
    static constexpr std::int64_t kBeginning_usec = 1'500'000'000'000'000;

    /// A second of two cameras at 20 images per second, with a value and an event at each tenth image of camera 1.
    std::string makeRecording() const {
        const std::string path = folder_.path("in.mcap");
        KRMcapWriter writer(path);
        KRMcapRecording recording(writer);
        const std::uint16_t schema = writer.addSchema("other/msg/Thing", "ros2msg", "int32 x");
        const std::uint16_t channel = writer.addChannel("/other", "cdr", schema);
        for (int i = 0; i < 20; ++i) {
            const std::int64_t time = kBeginning_usec + i * 50'000;
            KRImage image(0, kLumaColorSpace, false, 0.5F, 0.4F, -0.5F, -0.4F);
            std::fill_n(image.data.get(), image.width * image.height, static_cast<unsigned char>(i));
            image.timeStamp = time;
            for (const int camera : {1, 2}) {
                image.cameraId = static_cast<signed char>(camera);
                recording.writeImage(camera, image);
            }
            if (i % 10 == 9) {
                recording.writeMemory("Door", KRValue(i), toNanoseconds(time));
                recording.writeEvent("Bell", KRValue(i), toNanoseconds(time));
                writer.write(channel, 0, toNanoseconds(time), toNanoseconds(time), KRBytes());
            }
        }
        writer.close();
        return path;
    }
    RunningProgram replay(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "replay");
        return RunningProgram(onDomain(std::move(arguments)), "replaying");
    }
    std::string path(const std::string& name) const { return folder_.path(name); }

private:
    const TemporaryFolder folder_;
};

TEST_F(KrReplay, ReplaysTheRecordedSystem) {
    RunningProgram replayed = replay({makeRecording(), "--loop"});
    ASSERT_TRUE(replayed.isUp()) << replayed.readErr();
    EXPECT_THAT(replayed.readErr(), HasSubstr("/other is not replayed"));
    const Outcome watched = krOnDomain({"camera", "watch", "1", "--count", "5", "--resolution", "160x120"});
    EXPECT_EQ(watched.exitCode, 0) << watched.err;
    const Outcome rung = krOnDomain({"event", "watch", "Bell", "--count", "2"});
    EXPECT_EQ(rung.exitCode, 0) << rung.err;
    EXPECT_THAT(rung.out, AllOf(HasSubstr("Bell 9\n"), HasSubstr("Bell 19\n")));
    EXPECT_THAT(krOnDomain({"memory", "get", "Door"}).out, testing::AnyOf("9\n", "19\n"));
    const auto cameras = nlohmann::json::parse(krOnDomain({"camera", "list", "--json"}).out);
    ASSERT_EQ(cameras.size(), 3U); // camera 0 was not recorded
    EXPECT_EQ(krOnDomain({"camera", "snapshot", "0", path("a.ppm")}).exitCode, 1);
    EXPECT_EQ(replayed.stop(SIGINT).exitCode, 0);
}

TEST_F(KrReplay, EndsWithTheRecording) {
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = krOnDomain({"replay", makeRecording(), "--start", "0.5"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(450));
}

TEST_F(KrReplay, ReplaysAnOxvFile) {
    Bytes file = makeOxvHeader(kOxvVersion1, 0, 10, 1, {{160, 120, kLuma, 8}});
    for (unsigned frame = 0; frame < 10; ++frame) {
        appendChunk(file, frame, 0, 160 * 120);
    }
    writeAll(path("in.oxv"), file);
    RunningProgram replayed = replay({path("in.oxv"), "--loop", "--rate", "0.5"});
    ASSERT_TRUE(replayed.isUp()) << replayed.readErr();
    const Outcome watched = krOnDomain({"camera", "watch", "0", "--count", "3", "--resolution", "160x120"});
    EXPECT_EQ(watched.exitCode, 0) << watched.err;
    EXPECT_EQ(replayed.stop().exitCode, 0);
}

TEST_F(KrReplay, ReplaysTheSelectedTopics) {
    RunningProgram replayed = replay({makeRecording(), "--loop", "--only", "/memory/Door"});
    ASSERT_TRUE(replayed.isUp()) << replayed.readErr();
    EXPECT_TRUE(eventually([&] { return krOnDomain({"memory", "get", "Door"}).exitCode == 0; }));
    EXPECT_NE(krOnDomain({"memory", "get", "Bell"}).exitCode, 0);
    EXPECT_EQ(replayed.stop().exitCode, 0);
}

TEST_F(KrReplay, MissingTopicsAndTimesAreNamed) {
    const std::string recording = makeRecording();
    const auto refuses = [&](std::vector<std::string> options, const std::string& why) {
        options.insert(options.begin(), {"replay", recording});
        const Outcome outcome = kr(onDomain(std::move(options)));
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_THAT(outcome.err, HasSubstr(why));
    };
    refuses({"--only", "/camera/0/image"},
            "there is no topic /camera/0/image to replay; there are /camera/1/image, "
            "/camera/2/image, /event/Bell, /memory/Door");
    refuses({"--start", "5"}, "there is nothing to replay from second 5 on");
    writeAll(path("bad.mcap"), Bytes(100, 'x'));
    EXPECT_THAT(krOnDomain({"replay", path("bad.mcap")}).err, HasSubstr("neither an oxv nor an mcap file"));
    EXPECT_THAT(krOnDomain({"replay", path("none.oxv")}).err, HasSubstr("none.oxv"));
}

/// kr on a terminal.
class TerminalProgram {
public:
    explicit TerminalProgram(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), KR_PROGRAM);
        std::vector<char*> pointers;
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        process_ = ::forkpty(&terminal_, nullptr, nullptr, nullptr);
        if (process_ == 0) {
            ::execv(pointers[0], pointers.data());
            ::_exit(127);
        }
    }
    ~TerminalProgram() {
        ::kill(process_, SIGKILL);
        ::waitpid(process_, nullptr, 0);
        ::close(terminal_);
    }
    TerminalProgram(const TerminalProgram&) = delete;
    TerminalProgram& operator=(const TerminalProgram&) = delete;

    void press(char key) const { EXPECT_EQ(::write(terminal_, &key, 1), 1); }
    /// Reads until the text appears. \return whether it appeared
    [[nodiscard]] bool waitFor(const std::string& text) {
        return eventually([&] {
            pollfd input{terminal_, POLLIN, 0};
            std::array<char, 1024> bytes{};
            if (::poll(&input, 1, 0) == 1) {
                const ssize_t size = ::read(terminal_, bytes.data(), bytes.size());
                seen_.append(bytes.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
            }
            const auto found = seen_.find(text);
            if (found == std::string::npos) {
                return false;
            }
            seen_.erase(0, found + text.size());
            return true;
        });
    }
    const std::string& getSeen() const noexcept { return seen_; }

private:
    int terminal_ = -1;
    pid_t process_ = -1;
    std::string seen_;
};

TEST_F(KrReplay, PausesAndStepsOnATerminal) {
    TerminalProgram program(onDomain({"replay", makeRecording(), "--rate", "0.01", "--loop"}));
    ASSERT_TRUE(program.waitFor("space pauses, s steps")) << program.getSeen();
    program.press(' ');
    ASSERT_TRUE(program.waitFor("pauses at ")) << program.getSeen();
    program.press('s');
    ASSERT_TRUE(program.waitFor("steps at ")) << program.getSeen();
    RunningProgram watch(onDomain({"camera", "watch", "1", "--count", "3", "--resolution", "160x120"}), "");
    EXPECT_TRUE(eventually([&] { // each step is an image
        program.press('s');
        EXPECT_TRUE(program.waitFor("steps at "));
        return watch.readOut().find("3 images") != std::string::npos;
    })) << watch.readOut()
        << watch.readErr();
    program.press(' ');
    EXPECT_TRUE(program.waitFor("resumes at ")) << program.getSeen();
}

} // namespace
} // namespace KR::test
