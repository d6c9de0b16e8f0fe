/* A platform component, as small as it gets: may the file run? */
#include <kZOLUser.h>
#include <stdio.h>

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    printf("%d\n", verifyFileWihtoutKey(argv[1], "consumer"));
    return 0;
}
