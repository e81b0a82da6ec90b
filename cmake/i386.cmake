# 32-bit x86 on a 64-bit Debian host: the host's GCC with -m32 (gcc-multilib, g++-multilib),
# linked against the i386 packages of the libraries (dpkg --add-architecture i386).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

# -m32 is part of the compiler command, so every compile and link line has it, also when a
# configuration sets CMAKE_<LANG>_FLAGS or linker flags of its own. It starts the flags too,
# for builds that are handed the flags but not the whole compiler command (a client program
# built against this build).
set(CMAKE_C_COMPILER gcc -m32)
set(CMAKE_CXX_COMPILER g++ -m32)
set(CMAKE_ASM_COMPILER gcc -m32)
foreach(flags C_FLAGS CXX_FLAGS ASM_FLAGS EXE_LINKER_FLAGS SHARED_LINKER_FLAGS MODULE_LINKER_FLAGS)
    set(CMAKE_${flags}_INIT -m32)
endforeach()

# Libraries and package files are searched in the i386 multiarch directories
# (/usr/lib/i386-linux-gnu, and its cmake/ and pkgconfig/), never in the 64-bit ones: a
# missing i386 package fails the configure step instead of the link.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# i386 packages unpacked into a directory instead of installed (VEKR_I386_DEPS, its usr/ tree)
# are searched first; programs keep the path to them in their run paths, installed ones too.
if(DEFINED ENV{VEKR_I386_DEPS})
    set(VEKR_I386_DEPS "$ENV{VEKR_I386_DEPS}" CACHE PATH "Unpacked i386 packages")
endif()
if(VEKR_I386_DEPS)
    list(PREPEND CMAKE_PREFIX_PATH "${VEKR_I386_DEPS}/usr")
    set(ENV{PKG_CONFIG_LIBDIR}
        "${VEKR_I386_DEPS}/usr/lib/i386-linux-gnu/pkgconfig:$ENV{PKG_CONFIG_LIBDIR}")
    set(CMAKE_INSTALL_RPATH_USE_LINK_PATH ON)
    # As DT_RPATH, which also serves the libraries' own dependencies (libpng's libz), where a
    # DT_RUNPATH serves only the program's.
    foreach(flags EXE_LINKER_FLAGS SHARED_LINKER_FLAGS MODULE_LINKER_FLAGS)
        string(APPEND CMAKE_${flags}_INIT " -Wl,--disable-new-dtags")
    endforeach()
endif()
