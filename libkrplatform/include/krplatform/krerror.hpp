#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krsourcelocation.hpp"

#include <stdexcept>
#include <string>

namespace KR {

/// The error that a caller of a remote method sees, whichever module raised it.
///
/// what() is one printable line: "module.method: description (file:line)", the three texts escaped as by
/// escapeText(). The texts themselves stay as given. Reentrant.
class KR_EXPORT KRError : public std::runtime_error {
public:
    /// \param where  where it was raised
    KRError(std::string module, std::string method, std::string description,
            KRSourceLocation where = KRSourceLocation::current());
    ~KRError() override;

    const std::string& getModule() const noexcept { return module_; }           ///< that raised it
    const std::string& getMethod() const noexcept { return method_; }           ///< that failed
    const std::string& getDescription() const noexcept { return description_; } ///< what was wrong
    const KRSourceLocation& getLocation() const noexcept { return where_; }     ///< where it was raised

private:
    std::string module_;
    std::string method_;
    std::string description_;
    KRSourceLocation where_;
};

} // namespace KR
