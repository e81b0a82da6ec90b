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
