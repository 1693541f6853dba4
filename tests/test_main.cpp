// Every test program runs in a private system of its own (isolation.h).
#include <gtest/gtest.h>

#include "support/isolation.h"

namespace {

class PrivateSystem : public ::testing::Environment {
 public:
  void SetUp() override { enterPrivateSystem(); }
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new PrivateSystem);
  return RUN_ALL_TESTS();
}
