#pragma once

#include <string>

namespace KR {

/// Looks whether the credentials in a broker's security folder are there and belong together: the key fits the
/// certificate, that is issued by the identity authority and valid today, and the permissions authority has signed the
/// rules. What the rules say the engine looks at. \throws KRError they do not; the text names the file
void checkSecurityFiles(const std::string& folder);

} // namespace KR
