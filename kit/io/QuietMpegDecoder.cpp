// libsndfile reads MPEG audio through libmpg123, whose decoder handles print notices such as
// "Warning: Xing stream size off by more than 1%" straight to the terminal unless the handle is
// told to be quiet, and libsndfile offers no way to tell it. So this program provides
// `mpg123_new` itself: the dynamic linker binds libsndfile's call to the first definition it
// meets, which is this one; it makes the handle with the library's own function and sets the
// handle's quiet flag before anyone decodes with it. Nothing else of libmpg123 is touched.
#include "io/QuietMpegDecoder.h"

#include <dlfcn.h>
#include <mpg123.h>

namespace {

using MakeHandle = mpg123_handle* (*)(const char*, int*);
using SetParameter = int (*)(mpg123_handle*, enum mpg123_parms, long, double);

struct Library {
    MakeHandle makeHandle = nullptr;
    SetParameter setParameter = nullptr;
};

const Library& library() {
    static const Library found = [] {
        Library result;
        result.makeHandle = reinterpret_cast<MakeHandle>(::dlsym(RTLD_NEXT, "mpg123_new"));
        result.setParameter = reinterpret_cast<SetParameter>(::dlsym(RTLD_NEXT, "mpg123_param2"));
        return result;
    }();
    return found;
}

} // namespace

extern "C" __attribute__((visibility("default"))) mpg123_handle* mpg123_new(const char* decoder, int* error) {
    const Library& mpg123 = library();
    if (!mpg123.makeHandle) {
        if (error)
            *error = MPG123_ERR;
        return nullptr;
    }
    mpg123_handle* handle = mpg123.makeHandle(decoder, error);
    if (handle && mpg123.setParameter)
        mpg123.setParameter(handle, MPG123_ADD_FLAGS, MPG123_QUIET, 0.0);
    return handle;
}

namespace harlune {

bool QuietMpegDecoder::isInstalled() {
    // Asked through the dynamic linker, as libsndfile's call is bound: this file's definition
    // must be the one found.
    return ::dlsym(RTLD_DEFAULT, "mpg123_new") == reinterpret_cast<void*>(&::mpg123_new) &&
           library().makeHandle != nullptr && library().setParameter != nullptr;
}

} // namespace harlune
