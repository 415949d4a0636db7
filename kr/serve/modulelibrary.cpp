#include "serve/modulelibrary.hpp"

#include "serve/pythonfile.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"

#include <krplatform/krerror.hpp>

#include <dlfcn.h>

#include <filesystem>
#include <stdexcept>

namespace KR::tool {

NamedLibrary splitNamedLibrary(const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos || text.find('/') < equals) { // a path may have one in it
        return {"", text};
    }
    return {text.substr(0, equals), text.substr(equals + 1)};
}

HostedClass loadModuleClass(const std::string& library) {
    if (library.empty()) {
        throw UsageError("the name of a module library is empty");
    }
    if (isPythonFile(library)) {
        return loadPythonClass(library);
    }
    // dlopen searches the system's folders, not this one, for a name without a slash.
    const std::string path = library.find('/') == std::string::npos ? "./" + library : library;
    if (!std::filesystem::exists(path)) {
        throw std::runtime_error(library + ": there is no such file");
    }
    void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw std::runtime_error(library + " cannot be loaded: " + dlerror());
    }
    const auto getModuleClass = reinterpret_cast<KRGetModuleClass*>(dlsym(handle, kGetModuleClass));
    if (getModuleClass == nullptr) {
        throw std::runtime_error(library + " has no module: KR_REGISTER_MODULE(CLASS) is missing in it");
    }
    const KRModuleClass& loaded = *getModuleClass();
    return {loaded.name, loaded.defaultName, loaded.create};
}

KRModuleHandle<KRModule> createModuleOf(const std::string& library, const boost::shared_ptr<KRBroker>& broker,
                                        const std::string& name) {
    const HostedClass moduleClass = loadModuleClass(library);
    const std::string& used = name.empty() ? moduleClass.defaultName : name;
    const auto refuse = [&](const std::string& why) {
        throw std::runtime_error("no module " + used + " of " + library + ": " + why);
    };
    try {
        return moduleClass.create(broker, used);
    } catch (const KRError& error) {
        refuse(describe(error));
    } catch (const std::exception& error) {
        refuse(error.what());
    } catch (...) {
        refuse("its constructor threw something that is not a std::exception");
    }
    return {};
}

} // namespace KR::tool
