#pragma once

#include <memory>
#include <span>
#include <string>

namespace KR {

class KRSource;
struct KRSourceString;

/// One kind of camera source.
struct KRSourceKind {
    const char* scheme; ///< what its source strings begin with, up to the colon
    const char* usage;  ///< for messages: "file:PATH"
    int model;          ///< the answer of getCameraModel()
    /// Makes a source of this kind; opens nothing.
    /// \throws std::invalid_argument  the argument is wrong; the text says why
    std::unique_ptr<KRSource> (*make)(const KRSourceString& string);
    const char* defaultArgument = nullptr; ///< null if the source string needs an argument
    bool isUri = false;                    ///< the argument is the whole source string, "rtsp://host/path"
};

/// A parsed source string.
struct KRSourceString {
    const KRSourceKind* kind;
    std::string text;     ///< the source string, for messages: a password in it is hidden
    std::string argument; ///< never empty
    std::string password; ///< of a URI, with what encloses it: ":secret@"; empty if there is none
};

/// Finds the kind and the argument of a source string. The result refers to `kinds`. Reentrant.
/// \throws std::invalid_argument  unknown scheme, missing argument; the text lists what is supported
KRSourceString parseSourceString(const std::string& text, std::span<const KRSourceKind> kinds);

/// Replaces each occurrence of the source's password in the text by ":***@": texts go to logs and to other modules.
std::string hidePassword(const KRSourceString& source, std::string text);

} // namespace KR
