#include "core/flow.h"

int main(int argc, char **argv)
{
    return plaitd_main(argc, argv);
}
