#include "certificateauthority.hpp"

#include <gio/gio.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace KR {

namespace {

// Valid for two days, so that a slightly wrong clock does not matter.
constexpr const char* newCertificate =
    "openssl req -batch -x509 -days 2 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ";

void run(const std::string& command) {
    if (std::system((command + " 2>/dev/null").c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

} // namespace

CertificateAuthority::CertificateAuthority() {
    run(newCertificate +
        ("-subj '/CN=authority' -keyout " + (folder_ / "ca.key") + " -out " + (folder_ / "ca.pem")));
}

CertificateAuthority::~CertificateAuthority() {
    g_tls_backend_set_default_database(g_tls_backend_get_default(), nullptr);
}

std::string CertificateAuthority::certify(const std::string& address) const {
    const std::string file = folder_ / address;
    run(newCertificate +
        ("-subj '/CN=" + address + "' -addext 'subjectAltName=IP:" + address +
         "' -addext 'basicConstraints=critical,CA:FALSE' -CA " + (folder_ / "ca.pem") + " -CAkey " +
         (folder_ / "ca.key") + " -keyout " + file + ".key -out " + file + ".pem"));
    run("cat " + file + ".key " + file + ".pem >" + file);
    return file;
}

void CertificateAuthority::trust() const {
    GTlsDatabase* database = g_tls_file_database_new((folder_ / "ca.pem").c_str(), nullptr);
    g_tls_backend_set_default_database(g_tls_backend_get_default(), database);
    g_object_unref(database);
}

} // namespace KR
