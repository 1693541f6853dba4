#include <gtest/gtest.h>

#include "support/harness.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Not for a mere listing of the tests: only when they run.
  struct PrivateSystem : testing::Environment {
    void SetUp() override { enterPrivateSystem(); }
  };
  testing::AddGlobalTestEnvironment(new PrivateSystem);
  return RUN_ALL_TESTS();
}
