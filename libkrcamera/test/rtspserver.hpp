#pragma once

#include <memory>
#include <string>
#include <thread>

#include <gst/rtsp-server/rtsp-server.h>

namespace KR {

/// A network camera on the loopback interface, rtsp://127.0.0.1:PORT/camera: a white ball moving on green,
/// 320x240, 30 times per second.
class RtspServer {
public:
    enum class Coding {
        Jpeg,
        H264 ///< with sound, like most cameras
    };

    /// \param password  of the user "user"; empty: no authentication
    explicit RtspServer(Coding coding, std::string password = "");
    ~RtspServer();
    RtspServer(const RtspServer&) = delete;
    RtspServer& operator=(const RtspServer&) = delete;

    /// \param user  what precedes the host: "user:password@", or empty
    std::string getUri(const std::string& user = "", const std::string& path = "/camera") const {
        return "rtsp://" + user + "127.0.0.1:" + port_ + path;
    }

    /// Disconnects all clients and refuses new ones.
    void stop();
    /// Serves again, at the same address.
    void start();

private:
    struct Unref {
        void operator()(gpointer object) const noexcept { g_object_unref(object); }
    };
    struct UnrefLoop {
        void operator()(GMainLoop* loop) const noexcept { g_main_loop_unref(loop); }
        void operator()(GMainContext* context) const noexcept { g_main_context_unref(context); }
    };

    void addCamera();
    void requirePassword();

    const Coding coding_;
    const std::string password_;
    std::string port_ = "0";
    std::unique_ptr<GMainContext, UnrefLoop> context_;
    std::unique_ptr<GMainLoop, UnrefLoop> loop_;
    std::unique_ptr<GstRTSPServer, Unref> server_; // null while it is stopped
    std::thread thread_;
};

} // namespace KR
