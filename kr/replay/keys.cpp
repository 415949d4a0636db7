#include "replay/keys.hpp"

#include <poll.h>
#include <unistd.h>

namespace KR::tool {

Keys::Keys() {
    termios settings{};
    if (::tcgetpgrp(STDIN_FILENO) != ::getpgrp() || ::tcgetattr(STDIN_FILENO, &settings) != 0) {
        return; // no terminal, or one that would stop this program
    }
    before_ = settings;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    ::tcsetattr(STDIN_FILENO, TCSANOW, &settings);
}

Keys::~Keys() {
    if (before_) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &*before_);
    }
}

std::optional<char> Keys::read() const {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    char key = 0;
    if (!before_ || ::poll(&input, 1, 0) != 1 || ::read(STDIN_FILENO, &key, 1) != 1) {
        return std::nullopt;
    }
    return key;
}

} // namespace KR::tool
