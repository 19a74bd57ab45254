#include "kit/provider.h"

namespace {

TEST(Kit, Placeholder) {
  EXPECT_TRUE(kit::Imports::Get().Names().empty());
}

}  // namespace
