# Cross build for 32-bit ARM (ARMv7-A with NEON, hard float). Test binaries
# run under qemu-arm; there is no binfmt registration, so CMake starts them
# through the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(QIMRA_ARM_TRIPLE "arm-linux-gnueabihf" CACHE STRING "Cross toolchain prefix")
set(QIMRA_ARM_SYSROOT "/usr/arm-linux-gnueabihf" CACHE PATH "Target libraries for qemu-arm -L")
set(QIMRA_QEMU_ARM "qemu-arm" CACHE FILEPATH "User-mode emulator")

set(CMAKE_C_COMPILER ${QIMRA_ARM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${QIMRA_ARM_TRIPLE}-g++)
# Debian's cross compiler defaults to -mfpu=auto: NEON must be asked for.
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")

set(CMAKE_CROSSCOMPILING_EMULATOR ${QIMRA_QEMU_ARM} -L ${QIMRA_ARM_SYSROOT})

set(CMAKE_FIND_ROOT_PATH ${QIMRA_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
