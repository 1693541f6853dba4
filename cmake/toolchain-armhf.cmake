# ARMv7 with hardware floating point, run on a Cortex-A7 model.
# Used by tools/build-arm.sh armhf.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TZR_TRIPLE arm-linux-gnueabihf)
set(TZR_TARGET_ARCH armhf)
set(TZR_EMULATOR /usr/bin/qemu-arm -cpu cortex-a7)
include(${CMAKE_CURRENT_LIST_DIR}/arm-cross.cmake)
