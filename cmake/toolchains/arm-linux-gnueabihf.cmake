# 32-bit ARM Linux, hard float, as Debian's armhf: ARMv7-A with VFPv3-D16. Built with Debian's cross compiler
# (g++-arm-linux-gnueabihf), run by qemu-arm (qemu-user).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(KALVOREN_ARM_TRIPLE arm-linux-gnueabihf)
set(CMAKE_CXX_COMPILER ${KALVOREN_ARM_TRIPLE}-g++)
# GCC otherwise notes at each use that it passes some arguments otherwise than GCC 7.0 did.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi -march=armv7-a+fp -mfloat-abi=hard -mthumb")
set(CMAKE_LIBRARY_ARCHITECTURE ${KALVOREN_ARM_TRIPLE})

set(CMAKE_FIND_ROOT_PATH /usr/${KALVOREN_ARM_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;/usr/${KALVOREN_ARM_TRIPLE}")
