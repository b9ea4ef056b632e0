// Whether the test program runs under a user-mode emulator (the Arm leg runs
// under qemu-arm, whose ctest entries set PAVO_TEST_EMULATED).
#ifndef PAVO_TESTS_SUPPORT_EMULATION_H
#define PAVO_TESTS_SUPPORT_EMULATION_H

#include <cstdlib>

namespace pavo::test {

inline bool under_emulator() { return std::getenv("PAVO_TEST_EMULATED") != nullptr; }

}  // namespace pavo::test

#endif  // PAVO_TESTS_SUPPORT_EMULATION_H
