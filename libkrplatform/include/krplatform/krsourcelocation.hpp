#pragma once

#include <cstdint>
#include <version>

#ifdef __cpp_lib_source_location
#include <source_location>
#endif

namespace KR {

/// The place in the source where an error was raised or a record logged.
///
/// Replaces std::source_location, which clang 14 lacks, and converts from it.
/// The function is its bare name ("subscribe"), the file is relative to the source tree.
struct KRSourceLocation {
    const char* file = "";        ///< source file
    const char* function = "";    ///< signature of the function
    std::uint_least32_t line = 0; ///< line in the file

    constexpr KRSourceLocation() = default;
    /// A location from its parts.
    constexpr KRSourceLocation(const char* inFile, const char* inFunction, std::uint_least32_t atLine)
        : file(inFile), function(inFunction), line(atLine) {}
#ifdef __cpp_lib_source_location
    constexpr KRSourceLocation(const std::source_location& where) // NOLINT: converts on purpose
        : file(where.file_name()), function(where.function_name()), line(where.line()) {}
#endif

    /// The place of the call; use it as a default argument.
    static constexpr KRSourceLocation current(const char* inFile = __builtin_FILE(),
                                              const char* inFunction = __builtin_FUNCTION(),
                                              std::uint_least32_t atLine = __builtin_LINE()) {
        return {inFile, inFunction, atLine};
    }
};

} // namespace KR
