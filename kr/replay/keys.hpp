#pragma once

#include <optional>

#include <termios.h>

namespace KR::tool {

/// Single keys from the terminal that standard input is, if it is one and this program is in its foreground; otherwise there are
/// none. Thread-bound.
class Keys {
public:
    Keys();
    /// Restores the terminal.
    ~Keys();
    Keys(const Keys&) = delete;
    Keys& operator=(const Keys&) = delete;

    bool areThere() const noexcept { return before_.has_value(); }
    /// The next key that has been pressed. Does not wait.
    std::optional<char> read() const;

private:
    std::optional<termios> before_; // as the terminal was
};

} // namespace KR::tool
