# Cross build for the router's 32-bit ARM (hard-float EABI) with Debian's cross compiler
# (g++-arm-linux-gnueabihf, libc6-dev-armhf-cross). Target programs run on the build machine
# through qemu user-mode emulation, so ctest and GoogleTest's test discovery work unchanged.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(LEISOBEK_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${LEISOBEK_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${LEISOBEK_CROSS_TRIPLE}-g++)
# GCC 7.1 changed how some arguments are passed on ARM; everything here is built by one compiler,
# so the notes about it are noise.
set(CMAKE_C_FLAGS_INIT -Wno-psabi)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(CMAKE_STRIP ${LEISOBEK_CROSS_TRIPLE}-strip CACHE FILEPATH "")

# The ARM sysroot of Debian's cross packages: libraries and headers of the target only, programs
# of the build machine.
set(LEISOBEK_ARM_SYSROOT /usr/${LEISOBEK_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH ${LEISOBEK_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(LEISOBEK_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(LEISOBEK_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${LEISOBEK_QEMU_ARM} -L ${LEISOBEK_ARM_SYSROOT})
endif()
