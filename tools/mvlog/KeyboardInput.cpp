#include "KeyboardInput.h"

#include <poll.h>
#include <unistd.h>

#include <array>

namespace Mvlog {

std::vector<Key> parseKeys(std::string& bytes) {
    constexpr char kEscape = '\x1b';
    std::vector<Key> keys;
    std::size_t at = 0;
    while (at < bytes.size()) {
        const char byte = bytes[at];
        if (byte != kEscape) {
            if (byte == ' ') {
                keys.push_back(Key::Space);
            } else if (byte == 'q' || byte == 'Q') {
                keys.push_back(Key::Quit);
            }
            ++at;
            continue;
        }
        if (at + 1 >= bytes.size()) {
            break;  // the rest of the sequence is still on its way
        }
        if (bytes[at + 1] != '[' && bytes[at + 1] != 'O') {
            ++at;  // a lone escape key
            continue;
        }
        // CSI sequences may carry parameters (ESC [ 1 ; 5 C): the final byte
        // is the first in the range @ to ~.
        std::size_t end = at + 2;
        while (end < bytes.size() && !(bytes[end] >= '@' && bytes[end] <= '~')) {
            ++end;
        }
        if (end >= bytes.size()) {
            break;
        }
        if (bytes[end] == 'C') {
            keys.push_back(Key::Right);
        } else if (bytes[end] == 'D') {
            keys.push_back(Key::Left);
        }
        at = end + 1;
    }
    bytes.erase(0, at);
    return keys;
}

KeyboardInput::KeyboardInput() {
    if (::isatty(STDIN_FILENO) != 1 || ::tcgetattr(STDIN_FILENO, &saved_) != 0) {
        return;
    }
    struct termios raw = saved_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    active_ = ::tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
}

KeyboardInput::~KeyboardInput() {
    if (active_) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    }
}

std::vector<Key> KeyboardInput::poll() {
    if (!active_) {
        return {};
    }
    std::array<char, 64> buffer{};
    for (;;) {
        struct pollfd ready {
            STDIN_FILENO, POLLIN, 0
        };
        if (::poll(&ready, 1, 0) != 1 || (ready.revents & POLLIN) == 0) {
            break;
        }
        const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (count <= 0) {
            break;
        }
        pending_.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return parseKeys(pending_);
}

}  // namespace Mvlog
