# Debian's 32-bit ARM with hardware floating point; its programs run under qemu-arm.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(LUMORA_ARCHITECTURE armhf)
set(LUMORA_TRIPLET arm-linux-gnueabihf)
set(LUMORA_LIBRARIES arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")  # hides notes about the calling convention before GCC 7: no code here is older
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;${LUMORA_SYSROOT})
