// The main function of every test program: TARVO_TEST_DEVICE (auto, cpu, cuda, cuda:N) chooses the device
// that the tests run on. A device that cannot be had ends the program with status 1, so that a run that was
// meant for a GPU never passes without one.
#include <gtest/gtest.h>
#include <tarvo/NDevice.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (const char* device = std::getenv("TARVO_TEST_DEVICE")) {
    try {
      NDevice::select(device);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "TARVO_TEST_DEVICE: %s\n", error.what());
      return 1;
    }
  }
  return RUN_ALL_TESTS();
}
