#include "command.hpp"

int main(int argc, char** argv) {
    return static_cast<int>(KR::tool::runCommandLine(argc, argv));
}
