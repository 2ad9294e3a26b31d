#include "Panel.h"

int main(int argc, char *argv[])
{
    return runPanel(argc, argv);
}
