// The test programs' own main. libkZOLUser exports a `main` of its own; a main
// taken from an archive such as gtest_main would lose to it at link time and
// the program would run no test at all.
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
