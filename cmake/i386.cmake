# 32-bit x86 on a 64-bit Debian host: the host's GCC with -m32 (gcc-multilib, g++-multilib),
# linked against the i386 packages of the libraries (dpkg --add-architecture i386).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_ASM_FLAGS_INIT -m32)
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -m32)

# Libraries and package files are searched in the i386 multiarch directories
# (/usr/lib/i386-linux-gnu, and its cmake/ and pkgconfig/), never in the 64-bit ones: a
# missing i386 package fails the configure step instead of the link.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig)
