# 64-bit ARMv8, run on a Cortex-A53 model.
# Used by tools/build-arm.sh arm64.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TZR_TRIPLE aarch64-linux-gnu)
set(TZR_TARGET_ARCH arm64)
set(TZR_EMULATOR /usr/bin/qemu-aarch64 -cpu cortex-a53)
include(${CMAKE_CURRENT_LIST_DIR}/arm-cross.cmake)
