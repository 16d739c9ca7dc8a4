#include <iostream>
#include <string>
#include <vector>

#include "UnmountDiskCommand.h"

int main(int argc, char** argv) {
    std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    return diskunmounter::UnmountDiskCommand::main(arguments, std::cout, std::cerr);
}
