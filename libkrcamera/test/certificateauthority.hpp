#pragma once

#include "cameratest.hpp"

#include <string>

namespace KR {

/// Makes certificates that are trusted only once trust() has been called.
class CertificateAuthority {
public:
    CertificateAuthority();
    /// Ends the trust in this authority.
    ~CertificateAuthority();
    CertificateAuthority(const CertificateAuthority&) = delete;
    CertificateAuthority& operator=(const CertificateAuthority&) = delete;

    /// \return a file with the key and the certificate of a server at this address
    std::string certify(const std::string& address) const;

    /// Makes this process trust this authority instead of the system's.
    void trust() const;

private:
    TemporaryFolder folder_;
};

} // namespace KR
