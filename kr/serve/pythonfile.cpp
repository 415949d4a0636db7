#include "serve/pythonfile.hpp"

#ifdef KR_WITH_PYTHON
#include <krpythonhost.hpp>
#endif

#include <dlfcn.h>

#include <array>
#include <filesystem>
#include <stdexcept>

namespace KR::tool {

namespace {

constexpr const char* kExtension = ".py";

// The end of the file's name; npos if this is not a Python file.
std::size_t findEndOfFile(const std::string& text) {
    if (text.ends_with(kExtension)) {
        return text.size();
    }
    const auto found = text.rfind(std::string(kExtension) + ":");
    return found == std::string::npos ? found : found + 3;
}

#ifdef KR_WITH_PYTHON
// As it lies beside this program, installed or in the build folder.
std::filesystem::path findHost() {
    const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const std::array places{folder / KR_PYTHON_HOST, folder / "../python/krpythonhost.so"};
    for (const auto& place : places) {
        if (std::filesystem::exists(place)) {
            return place;
        }
    }
    throw std::runtime_error("the interpreter cannot be loaded: there is no " +
                             places[0].lexically_normal().string());
}

KRLoadPythonClass* loadHost() {
    static KRLoadPythonClass* const load = [] {
        // Modules of Python that are written in C look for the interpreter among the symbols of the program.
        void* const handle = dlopen(findHost().c_str(), RTLD_NOW | RTLD_GLOBAL);
        if (handle == nullptr) {
            throw std::runtime_error(std::string("the interpreter cannot be loaded: ") + dlerror());
        }
        return reinterpret_cast<KRLoadPythonClass*>(dlsym(handle, kLoadPythonClass));
    }();
    return load;
}
#endif

} // namespace

bool isPythonFile(const std::string& text) {
    return findEndOfFile(text) != std::string::npos;
}

HostedClass loadPythonClass(const std::string& text) {
    const std::size_t end = findEndOfFile(text);
    const std::string path = text.substr(0, end);
    if (!std::filesystem::exists(path)) {
        throw std::runtime_error(path + ": there is no such file");
    }
#ifdef KR_WITH_PYTHON
    KRPythonClass loaded;
    loadHost()(path, end == text.size() ? "" : text.substr(end + 1), loaded);
    return {loaded.name, loaded.defaultName, loaded.create};
#else
    throw std::runtime_error(path + ": this kr was built without Python (KR_PYTHON=OFF)");
#endif
}

} // namespace KR::tool
