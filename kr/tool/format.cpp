#include "tool/format.hpp"

#include <cstdarg>
#include <cstdio>

namespace KR::tool {

std::string format(const char* pattern, ...) {
    std::va_list values;
    va_start(values, pattern);
    std::va_list again;
    va_copy(again, values);
    const int size = std::vsnprintf(nullptr, 0, pattern, values);
    va_end(values);
    std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, pattern, again);
    va_end(again);
    return text;
}

} // namespace KR::tool
