#include "io/LameLibrary.h"

#include <dlfcn.h>
#include <mutex>
#include <optional>
#include <sys/stat.h>

namespace harlune {

namespace {

std::mutex& registryMutex() {
    static std::mutex mutex;
    return mutex;
}

struct Registry {
    std::vector<std::filesystem::path> paths{
        "/usr/lib/x86_64-linux-gnu/libmp3lame.so.0",
        "/usr/lib/aarch64-linux-gnu/libmp3lame.so.0",
        "/usr/lib/i386-linux-gnu/libmp3lame.so.0",
        "/usr/lib64/libmp3lame.so.0",
        "/usr/lib/libmp3lame.so.0",
        "/usr/local/lib/libmp3lame.so.0",
    };
    std::optional<std::shared_ptr<const LameLibrary>> loaded; ///< empty until first asked
};

Registry& registry() {
    static Registry instance;
    return instance;
}

template <class Function> bool bind(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

} // namespace

std::shared_ptr<const LameLibrary> LameLibrary::shared() {
    const std::lock_guard lock(registryMutex());
    Registry& r = registry();
    if (!r.loaded) {
        r.loaded = std::shared_ptr<const LameLibrary>();
        for (const auto& path : r.paths)
            if (auto library = load(path)) {
                r.loaded = std::move(library);
                break;
            }
    }
    return *r.loaded;
}

std::vector<std::filesystem::path> LameLibrary::searchPaths() {
    const std::lock_guard lock(registryMutex());
    return registry().paths;
}

void LameLibrary::setSearchPaths(std::vector<std::filesystem::path> paths) {
    const std::lock_guard lock(registryMutex());
    registry().paths = std::move(paths);
    registry().loaded.reset();
}

std::shared_ptr<const LameLibrary> LameLibrary::load(const std::filesystem::path& path) {
    struct stat info {};
    if (!path.is_absolute() || ::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        return nullptr;
    void* library = dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr)
        return nullptr;
    std::shared_ptr<LameLibrary> lame(new LameLibrary());
    lame->library_ = library;
    lame->path = path;
    const bool complete =
        bind(library, "lame_init", lame->lame_init) &&
        bind(library, "lame_set_in_samplerate", lame->lame_set_in_samplerate) &&
        bind(library, "lame_set_num_channels", lame->lame_set_num_channels) &&
        bind(library, "lame_set_out_samplerate", lame->lame_set_out_samplerate) &&
        bind(library, "lame_set_brate", lame->lame_set_brate) &&
        bind(library, "lame_set_mode", lame->lame_set_mode) &&
        bind(library, "lame_set_quality", lame->lame_set_quality) &&
        bind(library, "lame_set_VBR", lame->lame_set_VBR) &&
        bind(library, "lame_set_bWriteVbrTag", lame->lame_set_bWriteVbrTag) &&
        bind(library, "lame_init_params", lame->lame_init_params) &&
        bind(library, "lame_encode_buffer_ieee_float", lame->lame_encode_buffer_ieee_float) &&
        bind(library, "lame_encode_flush", lame->lame_encode_flush) &&
        bind(library, "lame_get_lametag_frame", lame->lame_get_lametag_frame) &&
        bind(library, "lame_get_encoder_delay", lame->lame_get_encoder_delay) &&
        bind(library, "lame_get_encoder_padding", lame->lame_get_encoder_padding) &&
        bind(library, "lame_close", lame->lame_close);
    if (!complete)
        return nullptr; // the destructor closes the library
    const char* (*getVersion)() = nullptr;
    if (bind(library, "get_lame_version", getVersion))
        if (const char* text = getVersion())
            lame->versionString = text;
    return lame;
}

LameLibrary::~LameLibrary() {
    if (library_ != nullptr)
        dlclose(library_);
}

} // namespace harlune
