#include "krheap.hpp"

#include <malloc.h>

namespace KR {

void returnFreedMemory() noexcept {
#ifdef __GLIBC__
    ::malloc_trim(0);
#endif
}

} // namespace KR
