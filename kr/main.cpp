#include "tool/command.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace {

// If the caller closed one of these, the next file to be opened would take its place and receive what is printed.
// /dev/null is opened in the wrong direction, so that using the stream still fails.
void occupyStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) == -1) {
            ::open("/dev/null",
                   stream == STDIN_FILENO ? O_WRONLY : O_RDONLY); // takes the lowest free descriptor
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    occupyStandardStreams();
    return static_cast<int>(KR::tool::runCommandLine(argc, argv));
}
