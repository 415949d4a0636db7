#pragma once

#include <string>

namespace KR {

/// Checks that the credentials in a broker's security folder exist and belong together: the key fits the certificate,
/// the identity authority has issued the certificate, both are valid today, and the permissions authority has signed the
/// rules. The engine checks what the rules say. \throws KRError a check fails; the text names the file
void checkSecurityFiles(const std::string& folder);

} // namespace KR
