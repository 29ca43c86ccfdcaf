# One interface target that every project target links privately, so warning policy lives here.
add_library(harlune_warnings INTERFACE)
target_compile_options(harlune_warnings INTERFACE -Wall -Wextra -Wshadow -Wconversion)
if(HARLUNE_WERROR)
    target_compile_options(harlune_warnings INTERFACE -Werror)
endif()

# Reductions (min, max, sums) vectorise only with an explicit simd pragma; this enables the
# pragma without OpenMP's runtime and without relaxing IEEE rules elsewhere.
add_library(harlune_simd INTERFACE)
target_compile_options(harlune_simd INTERFACE -fopenmp-simd)
