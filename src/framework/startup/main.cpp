#include "Startup.h"

int main(int argc, char** argv)
{
    return FenREL::Startup::Run(argc, argv);
}
