// Linked into every process under AddressSanitizer. LeakSanitizer does not read thread-local storage here (see
// lsan.supp), so it reports what GLib keeps for the main thread as leaked. That is suppressed, but to match the
// suppression the sanitizer reads the debug information of every library, in each of thousands of short processes.
// glibc keeps the values of pthread_setspecific in the thread's descriptor, at pthread_self(): whatever they point to
// is in use.

#include <cstddef>
#include <pthread.h>

extern "C" void __lsan_register_root_region(const void* begin, std::size_t size);

namespace {

constexpr std::size_t kDescriptorBytes = 2048; // of 2304, in glibc 2.36

[[gnu::constructor]] void registerDescriptor() {
    __lsan_register_root_region(reinterpret_cast<const void*>(pthread_self()), kDescriptorBytes);
}

} // namespace
