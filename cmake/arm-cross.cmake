# What the three ARM toolchain files share. Each sets TZR_TRIPLE (the Debian
# cross compiler's prefix), TZR_TARGET_ARCH (the Debian architecture) and
# TZR_EMULATOR (the qemu-user command for a CPU of that architecture) first.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${TZR_TRIPLE}-g++)

# The target's own libraries (cgicc, gtest) are unpacked from Debian's
# packages into the build tree by tools/build-arm.sh; the C and C++ runtime
# come with the cross compiler under /usr/TRIPLE.
if(NOT DEFINED TZR_SYSROOT)
  set(TZR_SYSROOT "${CMAKE_BINARY_DIR}/sysroot" CACHE PATH "Target libraries unpacked from Debian packages")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TZR_SYSROOT)
set(CMAKE_FIND_ROOT_PATH ${TZR_SYSROOT} /usr/${TZR_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR} "${TZR_SYSROOT}/usr/lib/${TZR_TRIPLE}/pkgconfig:${TZR_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TZR_SYSROOT}")

# CTest, gtest_discover_tests and the test harness start target programs
# through this. -L lets the dynamically linked ones (tests, simulator) find
# the cross compiler's loader and libraries; the static program ignores it.
set(CMAKE_CROSSCOMPILING_EMULATOR ${TZR_EMULATOR} -L /usr/${TZR_TRIPLE})

# -Wno-psabi: GCC's notes on an ARM argument-passing change of GCC 7.1 concern
# mixing with code built by older compilers, which never happens here. (The
# sections that let the linker drop unused code: ../CMakeLists.txt.)
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
# 32-bit ARM: 64-bit time_t and file offsets (glibc 2.34 and later), so that
# our calls reach glibc's 64-bit entry points and keep working past
# 2038-01-19 03:14:07 (the link map's cross reference shows who calls what).
# The sysroot's cgicc and gtest are built without them: no interface of
# theirs that we use carries a time_t, off_t or struct stat. 64-bit targets
# have both already. Not in the cached flags, so an older build tree takes
# them too.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL arm)
  add_compile_definitions(_TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()
