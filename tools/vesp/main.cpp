#include <iostream>

#include "tools/vesp/VespCommandLine.h"

int main(int argc, char** argv) { return vesp::tool::runVesp(argc, argv, std::cout, std::cerr); }
