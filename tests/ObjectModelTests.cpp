#include <gtest/gtest.h>
#include <qx/Array.h>
TEST(ObjectModel, Placeholder) { EXPECT_TRUE(qx::Array::create()->empty()); }
