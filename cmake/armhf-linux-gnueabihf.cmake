# Cross build for 32-bit ARM (hard-float EABI) with Debian's g++-arm-linux-gnueabihf.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-linux-gnueabihf.cmake
#
# The target has 32-bit pointers and long, an unsigned plain char and glibc's 32-bit time_t
# (so struct input_event is 16 bytes). Test programs run through qemu-arm with the cross
# libraries as their root; GoogleTest is built from Debian's sources (CMakeLists.txt).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TAVRINE_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${TAVRINE_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${TAVRINE_CROSS_TRIPLE}-g++)

set(CMAKE_FIND_ROOT_PATH /usr/${TAVRINE_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Warnings that matter on this target on top of the project's -Wall -Wextra -Werror:
# a cast that raises the required alignment of a pointer faults or is slow on ARM.
set(CMAKE_CXX_FLAGS_INIT "-Wcast-align")

find_program(TAVRINE_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(TAVRINE_QEMU_ARM)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVRINE_QEMU_ARM} -L /usr/${TAVRINE_CROSS_TRIPLE})
endif()
