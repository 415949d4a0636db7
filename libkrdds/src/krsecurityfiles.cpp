#include "krsecurityfiles.hpp"

#include <krplatform/krerror.hpp>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <filesystem>
#include <memory>

namespace KR {

namespace {

namespace fs = std::filesystem;

template <auto release>
struct Free {
    template <class T>
    void operator()(T* object) const noexcept {
        release(object);
    }
};
using Input = std::unique_ptr<BIO, Free<BIO_free_all>>;
using Certificate = std::unique_ptr<X509, Free<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using Store = std::unique_ptr<X509_STORE, Free<X509_STORE_free>>;
using Verification = std::unique_ptr<X509_STORE_CTX, Free<X509_STORE_CTX_free>>;
using SignedDocument = std::unique_ptr<PKCS7, Free<PKCS7_free>>;

constexpr const char* kIdentityAuthority = "identity-ca.pem";
constexpr const char* kPermissionsAuthority = "permissions-ca.pem";

[[noreturn]] void refuse(const fs::path& file, const std::string& why) {
    ERR_clear_error(); // the engine would report it as its own
    throw KRError("KRBroker", "create", "security: " + file.string() + " " + why);
}

std::string getReason() {
    const char* details = "";
    int flags = 0;
    const auto code = ERR_peek_last_error_all(nullptr, nullptr, nullptr, &details, &flags);
    const char* reason = ERR_reason_error_string(code);
    std::string text = reason != nullptr ? reason : "unknown error";
    if ((flags & ERR_TXT_STRING) != 0 && *details != '\0') {
        text += std::string(", ") + details;
    }
    return text;
}

Input open(const fs::path& file) {
    std::error_code ignored;
    if (!fs::is_regular_file(file, ignored)) {
        refuse(file, "is missing");
    }
    Input input(BIO_new_file(file.c_str(), "rb"));
    if (!input) {
        refuse(file, "cannot be read: " + getReason());
    }
    return input;
}

Certificate readCertificate(const fs::path& file) {
    Certificate certificate(PEM_read_bio_X509(open(file).get(), nullptr, nullptr, nullptr));
    if (!certificate) {
        refuse(file, "is not a certificate in PEM format");
    }
    return certificate;
}

Key readKey(const fs::path& file) {
    const auto noPassword = [](char*, int, int, void*) { return -1; }; // do not ask on the terminal
    Key key(PEM_read_bio_PrivateKey(open(file).get(), nullptr, noPassword, nullptr));
    if (!key) {
        refuse(file, "is not a private key in PEM format without a password");
    }
    return key;
}

Store trust(const Certificate& authority) {
    Store store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), authority.get());
    return store;
}

void checkIdentity(const fs::path& folder) {
    const Certificate authority = readCertificate(folder / kIdentityAuthority);
    const Certificate identity = readCertificate(folder / "identity.pem");
    const Key key = readKey(folder / "key.pem");
    if (X509_check_private_key(identity.get(), key.get()) != 1) {
        refuse(folder / "key.pem", "is not the key of the certificate in identity.pem");
    }
    const Store store = trust(authority);
    const Verification verification(X509_STORE_CTX_new());
    if (X509_STORE_CTX_init(verification.get(), store.get(), identity.get(), nullptr) != 1 ||
        X509_verify_cert(verification.get()) != 1) {
        const std::string why = X509_verify_cert_error_string(X509_STORE_CTX_get_error(verification.get()));
        if (X509_STORE_CTX_get_error_depth(verification.get()) > 0) {
            refuse(folder / kIdentityAuthority, "is not valid: " + why);
        }
        refuse(folder / "identity.pem",
               std::string("is not valid beside ") + kIdentityAuthority + ": " + why);
    }
}

void checkSignature(const fs::path& file, const Store& trusted) {
    const Input input = open(file);
    BIO* unsignedPart = nullptr;
    const SignedDocument document(SMIME_read_PKCS7(input.get(), &unsignedPart));
    const Input content(unsignedPart);
    if (!document) {
        refuse(file, "is not a signed document in S/MIME format");
    }
    if (PKCS7_verify(document.get(), nullptr, trusted.get(), content.get(), nullptr, 0) != 1) {
        refuse(file, std::string("is not signed by ") + kPermissionsAuthority + ": " + getReason());
    }
}

} // namespace

void checkSecurityFiles(const std::string& folder) {
    checkIdentity(folder);
    const Store permissionsAuthority = trust(readCertificate(fs::path(folder) / kPermissionsAuthority));
    for (const char* rules : {"governance.p7s", "permissions.p7s"}) {
        checkSignature(fs::path(folder) / rules, permissionsAuthority);
    }
}

} // namespace KR
