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

std::string describe(GTlsCertificateFlags errors) {
    std::string text = "its certificate is not trusted: ";
    if ((errors & G_TLS_CERTIFICATE_UNKNOWN_CA) != 0) {
        return text + "it is signed by an authority that is not known here";
    }
    if ((errors & G_TLS_CERTIFICATE_BAD_IDENTITY) != 0) {
        return text + "it is that of another host";
    }
    if ((errors & G_TLS_CERTIFICATE_NOT_ACTIVATED) != 0) {
        return text + "it is not valid yet";
    }
    if ((errors & G_TLS_CERTIFICATE_EXPIRED) != 0) {
        return text + "it has expired";
    }
    return text + "it was revoked or is weak or damaged";
}

gboolean refuseCertificate(GTlsConnection*, GTlsCertificate*, GTlsCertificateFlags errors, gpointer reason) {
    *static_cast<std::string*>(reason) = describe(errors);
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
    std::string reason;
    g_signal_connect(client.get(), "event", G_CALLBACK(watchHandshake), &reason);
    GError* error = nullptr;
    const std::unique_ptr<GSocketConnection, Unref> connection(
        g_socket_client_connect_to_uri(client.get(), uri.c_str(), secure ? 443 : 80, nullptr, &error));
    const GstHandle<GError> ownedError(error);
    if (reason.empty() && error != nullptr) {
        reason = error->message;
    }
    return reason;
}

} // namespace KR
