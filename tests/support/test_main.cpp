// The test programs' own main. libkZOLUser exports a `main` of its own; a main
// taken from an archive such as gtest_main would lose to it at link time and
// the program would run no test at all.
//
// Each test program first moves into a network namespace of its own when it
// may: abstract socket names are private to a network namespace, so suites
// that listen on the daemon's fixed name cannot meet each other or a real
// daemon. Without the privilege the suites' CTest resource lock keeps them apart.
#include <gtest/gtest.h>
#include <sched.h>

int main(int argc, char** argv)
{
    (void)unshare(CLONE_NEWNET);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
