# Cross build for 32-bit Arm hard-float (arm-linux-gnueabihf) with Debian's
# cross compiler and the :armhf multiarch packages of the dependencies.
# ctest runs the Arm test programs under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Sysroot of the cross tool chain's C library; the multiarch libraries of the
# :armhf packages are found through their usual /usr/lib/arm-linux-gnueabihf.
set(PAVO_ARMHF_SYSROOT /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH ${PAVO_ARMHF_SYSROOT} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Programs run against the run-time root of the :armhf multiarch packages,
# which is "/": the Arm dynamic loader /lib/ld-linux-armhf.so.3 and every Arm
# library (libc, libstdc++, jsoncpp) come from the same Debian packages there.
# (The cross tool chain's own sysroot holds a loader too, but mixing it with
# the multiarch libraries crashes at the first thread.)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /)
