#include "command.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace {

// Where the caller has closed one of these, the next file to be opened would take its place, and get what is said
// there. Opened the wrong way round, so that whoever uses it still hears of it.
void occupyStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) == -1) {
            ::open("/dev/null",
                   stream == STDIN_FILENO ? O_WRONLY : O_RDONLY); // takes the lowest that is free
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    occupyStandardStreams();
    return static_cast<int>(KR::tool::runCommandLine(argc, argv));
}
