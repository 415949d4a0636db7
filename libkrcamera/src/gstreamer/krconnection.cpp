#include "gstreamer/krconnection.hpp"

#include "gstreamer/krgstreamer.hpp"

#include <gio/gio.h>

#include <memory>

namespace KR {

namespace {

constexpr guint timeout_s = 2;

struct Unref {
    void operator()(gpointer object) const noexcept { g_object_unref(object); }
};

const char* describe(GTlsCertificateFlags errors) noexcept {
    if ((errors & G_TLS_CERTIFICATE_UNKNOWN_CA) != 0) {
        return "it is signed by an unknown authority";
    }
    if ((errors & G_TLS_CERTIFICATE_BAD_IDENTITY) != 0) {
        return "it belongs to another host";
    }
    if ((errors & G_TLS_CERTIFICATE_NOT_ACTIVATED) != 0) {
        return "it is not valid yet";
    }
    if ((errors & G_TLS_CERTIFICATE_EXPIRED) != 0) {
        return "it has expired";
    }
    return "it was revoked or is weak or damaged";
}

gboolean refuseCertificate(GTlsConnection*, GTlsCertificate*, GTlsCertificateFlags errors, gpointer reason) {
    *static_cast<const char**>(reason) = describe(errors);
    return FALSE;
}

void watchHandshake(GSocketClient*, GSocketClientEvent event, GSocketConnectable*, GIOStream* stream,
                    gpointer reason) {
    if (event == G_SOCKET_CLIENT_TLS_HANDSHAKING) {
        g_signal_connect(stream, "accept-certificate", G_CALLBACK(refuseCertificate), reason);
    }
}

} // namespace

std::string explainConnection(const std::string& uri) {
    const bool secure = uri.starts_with("https:");
    const std::unique_ptr<GSocketClient, Unref> client(g_socket_client_new());
    g_socket_client_set_timeout(client.get(), timeout_s);
    g_socket_client_set_tls(client.get(), secure);
    const char* distrust = nullptr;
    g_signal_connect(client.get(), "event", G_CALLBACK(watchHandshake), &distrust);
    GError* error = nullptr;
    const std::unique_ptr<GSocketConnection, Unref> connection(
        g_socket_client_connect_to_uri(client.get(), uri.c_str(), secure ? 443 : 80, nullptr, &error));
    const GstHandle<GError> ownedError(error);
    if (distrust != nullptr) {
        return std::string("its certificate is not trusted: ") + distrust;
    }
    return error != nullptr ? error->message : "";
}

} // namespace KR
