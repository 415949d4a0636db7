#include "rtspserver.hpp"

#include <stdexcept>
#include <utility>

namespace KR {

namespace {

constexpr const char* role = "user";

GstRTSPFilterResult removeClient(GstRTSPServer*, GstRTSPClient*, gpointer) {
    return GST_RTSP_FILTER_REMOVE;
}

GstRTSPFilterResult removeSession(GstRTSPSessionPool*, GstRTSPSession*, gpointer) {
    return GST_RTSP_FILTER_REMOVE;
}

gboolean quitLoop(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

} // namespace

RtspServer::RtspServer(Coding coding, std::string password)
    : coding_(coding), password_(std::move(password)) {
    gst_init(nullptr, nullptr);
    start();
}

RtspServer::~RtspServer() {
    stop();
}

void RtspServer::start() {
    context_.reset(g_main_context_new());
    loop_.reset(g_main_loop_new(context_.get(), FALSE));
    server_.reset(gst_rtsp_server_new());
    gst_rtsp_server_set_address(server_.get(), "127.0.0.1");
    gst_rtsp_server_set_service(server_.get(), port_.c_str());
    addCamera();
    if (!password_.empty()) {
        requirePassword();
    }
    if (gst_rtsp_server_attach(server_.get(), context_.get()) == 0) {
        throw std::runtime_error("no port for the RTSP server");
    }
    port_ = std::to_string(gst_rtsp_server_get_bound_port(server_.get()));
    thread_ = std::thread([this] { g_main_loop_run(loop_.get()); });
}

void RtspServer::stop() {
    if (!server_) {
        return;
    }
    // Quits the loop from within: before it runs, quitting has no effect.
    GSource* quit = g_idle_source_new();
    g_source_set_callback(quit, quitLoop, loop_.get(), nullptr);
    g_source_attach(quit, context_.get());
    g_source_unref(quit);
    thread_.join(); // from here on, there are no new clients
    gst_rtsp_server_client_filter(server_.get(), removeClient, nullptr);
    const std::unique_ptr<GstRTSPSessionPool, Unref> sessions(
        gst_rtsp_server_get_session_pool(server_.get()));
    gst_rtsp_session_pool_filter(sessions.get(), removeSession, nullptr);
    server_.reset();
    loop_.reset();
    context_.reset(); // closes the port, too
}

void RtspServer::addCamera() {
    const std::string coder = coding_ == Coding::Jpeg
                                  ? "jpegenc quality=95 ! rtpjpegpay name=pay0"
                                  : "openh264enc gop-size=10 ! rtph264pay name=pay0 "
                                    "audiotestsrc is-live=true ! alawenc ! rtppcmapay name=pay1";
    GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
    gst_rtsp_media_factory_set_launch(
        factory, ("( videotestsrc is-live=true pattern=ball foreground-color=0xffffffff "
                  "background-color=0xff00ff00 ! video/x-raw,format=RGB,width=320,height=240,"
                  "framerate=30/1 ! videoconvert ! video/x-raw,format=I420 ! " +
                  coder + " )")
                     .c_str());
    gst_rtsp_media_factory_set_shared(factory, TRUE); // one picture for all clients, like a camera
    gst_rtsp_media_factory_add_role(factory, role, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS, G_TYPE_BOOLEAN, TRUE,
                                    GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT, G_TYPE_BOOLEAN, TRUE, nullptr);
    const std::unique_ptr<GstRTSPMountPoints, Unref> paths(gst_rtsp_server_get_mount_points(server_.get()));
    gst_rtsp_mount_points_add_factory(paths.get(), "/camera", factory);
}

void RtspServer::requirePassword() {
    const std::unique_ptr<GstRTSPAuth, Unref> auth(gst_rtsp_auth_new());
    GstRTSPToken* token = gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, role, nullptr);
    gst_rtsp_auth_set_supported_methods(auth.get(), GST_RTSP_AUTH_DIGEST);
    gst_rtsp_auth_add_digest(auth.get(), "user", password_.c_str(), token);
    gst_rtsp_token_unref(token);
    gst_rtsp_server_set_auth(server_.get(), auth.get());
}

} // namespace KR
