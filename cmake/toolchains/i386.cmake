# Debian's 32-bit x86 with SSE2, so that doubles are calculated as on the device.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(LUMORA_ARCHITECTURE i386)
set(LUMORA_TRIPLET i686-linux-gnu)
set(LUMORA_LIBRARIES i386-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
set(CMAKE_CXX_FLAGS_INIT "-msse2 -mfpmath=sse")

# If the kernel runs 32-bit programs, the sysroot's own loader starts them; otherwise qemu-i386 does.
set(LUMORA_LOADER ${LUMORA_SYSROOT}/lib/ld-linux.so.2)
execute_process(COMMAND ${LUMORA_LOADER} --version RESULT_VARIABLE LUMORA_LOADER_STATUS OUTPUT_QUIET ERROR_QUIET)
if(LUMORA_LOADER_STATUS EQUAL 0)
  set(CMAKE_CROSSCOMPILING_EMULATOR env GCONV_PATH=${LUMORA_SYSROOT}/usr/lib/i386-linux-gnu/gconv
    ${LUMORA_LOADER} --library-path ${LUMORA_SYSROOT}/lib/i386-linux-gnu:${LUMORA_SYSROOT}/usr/lib/i386-linux-gnu)
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-i386;-L;${LUMORA_SYSROOT})
endif()
