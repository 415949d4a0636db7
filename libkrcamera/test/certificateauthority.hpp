#pragma once

#include "cameratest.hpp"

#include <string>

namespace KR {

/// Makes certificates. Nobody trusts them unless told to.
class CertificateAuthority {
public:
    CertificateAuthority();
    /// From here on it is not trusted any more.
    ~CertificateAuthority();
    CertificateAuthority(const CertificateAuthority&) = delete;
    CertificateAuthority& operator=(const CertificateAuthority&) = delete;

    /// \return a file with the key and the certificate of a server at this address
    std::string certify(const std::string& address) const;

    /// Has this process trust it, instead of those that the system trusts.
    void trust() const;

private:
    TemporaryFolder folder_;
};

} // namespace KR
