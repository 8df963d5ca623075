// Finding and opening the kavrin_images module (see ImageCodec.h).

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <mutex>

#include "FileError.h"
#include "ImageCodec.h"

namespace Kavrin {

namespace {

const char kModule[] = "kavrin_images.so";

// The folder of the program or shared library this code was linked into.
std::string OwnFolder() {
    Dl_info info;
    link_map* map = nullptr;
    std::string file;
    if (dladdr1(reinterpret_cast<void*>(&OwnFolder), &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) &&
        map && map->l_name && map->l_name[0])
        file = map->l_name;
    else {
        // The main program's link map has no name.
        char path[4096];
        const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
        if (n > 0) file.assign(path, static_cast<size_t>(n));
    }
    const size_t slash = file.rfind('/');
    return slash == std::string::npos ? std::string() : file.substr(0, slash);
}

struct Loaded {
    KImageCodec codec{nullptr, nullptr};
    std::string error;
};

Loaded Load() {
    Loaded loaded;
    std::string tried;
    void* module = nullptr;
    std::vector<std::string> places;
    const std::string own = OwnFolder();
    if (!own.empty()) places.push_back(own + "/" + kModule);
#ifdef KAVRIN_IMAGES_MODULE
    places.push_back(KAVRIN_IMAGES_MODULE);
#endif
    for (const std::string& place : places) {
        if (access(place.c_str(), F_OK) != 0) continue;
        // Kept open for the life of the process.
        module = dlopen(place.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (module) break;
        const char* why = dlerror();
        tried = place + ": " + (why ? why : "cannot be opened");
    }
    if (!module) {
        loaded.error = tried.empty() ? std::string("the image module ") + kModule + " is not installed beside " +
                                           (own.empty() ? std::string("this program") : own)
                                     : "the image module cannot be opened (" + tried + ")";
        return loaded;
    }
    loaded.codec.readRed = reinterpret_cast<decltype(loaded.codec.readRed)>(dlsym(module, "KavrinImagesReadRed"));
    loaded.codec.encode = reinterpret_cast<decltype(loaded.codec.encode)>(dlsym(module, "KavrinImagesEncode"));
    if (!loaded.codec.readRed || !loaded.codec.encode)
        loaded.error = std::string("the image module ") + kModule + " lacks its entry points (another version?)";
    return loaded;
}

}  // namespace

const KImageCodec& ImageCodec(const std::string& path) {
    static std::once_flag once;
    static Loaded loaded;
    std::call_once(once, [] { loaded = Load(); });
    // Guard (behaviour note "Image files: the module that reads them")
    if (!loaded.error.empty()) throw KFileError(path + ": " + loaded.error);
    return loaded.codec;
}

}  // namespace Kavrin
