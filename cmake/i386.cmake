# The 32-bit target. Libraries that Debian offers for it are unpacked into TOLVIN_SYSROOT_I386 by scripts/setup; headers
# of header-only libraries are the host's.
set(CMAKE_C_FLAGS_INIT "-m32 -msse2 -mfpmath=sse -mstackrealign")
set(CMAKE_CXX_FLAGS_INIT "-m32 -msse2 -mfpmath=sse -mstackrealign")
# Libraries there need others there, which only this kind of path leads to.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--disable-new-dtags")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
get_filename_component(TOLVIN_SYSROOT_I386 "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-i386" ABSOLUTE)
set(CMAKE_PREFIX_PATH "${TOLVIN_SYSROOT_I386}/usr")
set(CMAKE_IGNORE_PREFIX_PATH "/usr/lib/x86_64-linux-gnu")
set(CMAKE_SYSTEM_IGNORE_PATH "/usr/lib/x86_64-linux-gnu;/lib/x86_64-linux-gnu")
