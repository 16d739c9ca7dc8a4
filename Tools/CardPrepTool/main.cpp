#include <iostream>
#include <string>
#include <vector>

#include "CardPrepCommand.h"

int main(int argc, char** argv) {
    std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    return cardprep::CardPrepCommand::main(arguments, std::cout, std::cerr);
}
