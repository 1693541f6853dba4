# ARMv5TE with software floating point, run on an ARM926 model: an ARMv7
# instruction there stops with SIGILL, so running proves the build targets ARMv5.
# Used by tools/build-arm.sh armel.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TZR_TRIPLE arm-linux-gnueabi)
set(TZR_TARGET_ARCH armel)
set(TZR_EMULATOR /usr/bin/qemu-arm -cpu arm926)
include(${CMAKE_CURRENT_LIST_DIR}/arm-cross.cmake)
