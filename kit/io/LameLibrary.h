#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace harlune {

/// The LAME MP3 encoder, found at run time: MP3 export exists only where the distribution has
/// installed libmp3lame. It is loaded by absolute path from the library folders, never by bare
/// name, so that no `LD_LIBRARY_PATH` entry (an empty one means the working directory) can slip
/// another library in. Thread-safe.
class LameLibrary {
public:
    using Handle = void*; ///< lame_global_flags*

    /// The first usable library of `searchPaths()`, loaded once; null when there is none.
    static std::shared_ptr<const LameLibrary> shared();
    /// The distribution's shared objects, in the order tried.
    static std::vector<std::filesystem::path> searchPaths();
    /// Replaces the list and forgets the loaded library, so a test can be a machine without it.
    static void setSearchPaths(std::vector<std::filesystem::path> paths);
    /// Loads one file; null when it is not there or lacks any of the functions used.
    static std::shared_ptr<const LameLibrary> load(const std::filesystem::path& path);

    ~LameLibrary();
    LameLibrary(const LameLibrary&) = delete;
    LameLibrary& operator=(const LameLibrary&) = delete;

    std::filesystem::path path;
    /// From get_lame_version; empty when the library does not have it.
    std::string versionString;

    Handle (*lame_init)() = nullptr;
    int (*lame_set_in_samplerate)(Handle, int) = nullptr;
    int (*lame_set_num_channels)(Handle, int) = nullptr;
    int (*lame_set_out_samplerate)(Handle, int) = nullptr;
    int (*lame_set_brate)(Handle, int) = nullptr;
    int (*lame_set_mode)(Handle, int) = nullptr;
    int (*lame_set_quality)(Handle, int) = nullptr;
    int (*lame_set_VBR)(Handle, int) = nullptr;
    int (*lame_set_bWriteVbrTag)(Handle, int) = nullptr;
    int (*lame_init_params)(Handle) = nullptr;
    int (*lame_encode_buffer_ieee_float)(Handle, const float*, const float*, int, unsigned char*,
                                         int) = nullptr;
    int (*lame_encode_flush)(Handle, unsigned char*, int) = nullptr;
    size_t (*lame_get_lametag_frame)(Handle, unsigned char*, size_t) = nullptr;
    int (*lame_get_encoder_delay)(Handle) = nullptr;
    int (*lame_get_encoder_padding)(Handle) = nullptr;
    int (*lame_close)(Handle) = nullptr;

private:
    LameLibrary() = default;
    void* library_ = nullptr;
};

} // namespace harlune
