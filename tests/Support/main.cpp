// main.cpp - the test runner.

#include "TestSupport.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Death tests fork; "threadsafe" re-executes the binary so that threads
    // started by earlier tests cannot deadlock the child.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
