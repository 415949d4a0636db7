#pragma once

#include "cameratest.hpp"

#include <string>

namespace KR {

/// Makes certificates, which are not trusted until trust() is called.
class CertificateAuthority {
public:
    CertificateAuthority();
    /// The authority is no longer trusted afterwards.
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
