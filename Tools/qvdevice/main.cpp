#include <iostream>

#include "CommandLine.h"

int main(int argc, char** argv) {
    return qvdevice::run(argc, argv, std::cout, std::cerr);
}
