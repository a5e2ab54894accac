#pragma once

#include <termios.h>

#include <string>
#include <vector>

namespace Mvlog {

// The keys an interactive command reacts to; everything else is ignored.
enum class Key {
    Space,
    Left,
    Right,
    Quit,  // q or Q
};

// Reads single key presses from standard input while it lives, when standard
// input is a terminal: the terminal leaves line editing and echo (signals such
// as Ctrl-C still reach the process) and is put back as it was on
// destruction. On anything else it reads nothing, so pipes and redirected
// input are never consumed. Used from one thread.
class KeyboardInput {
public:
    KeyboardInput();
    ~KeyboardInput();
    KeyboardInput(const KeyboardInput&) = delete;
    KeyboardInput& operator=(const KeyboardInput&) = delete;

    // The keys pressed since the last call, without waiting.
    std::vector<Key> poll();

private:
    bool active_ = false;
    struct termios saved_ {};
    // Bytes of an escape sequence that has not arrived whole yet.
    std::string pending_;
};

// Parses what a terminal sends for the keys above: a space, q, and the arrow
// keys in both cursor modes (ESC [ C and ESC O C). Bytes of an escape
// sequence cut short at the end of `bytes` are left in `bytes` for the next
// read; everything that was parsed, known or not, is removed.
std::vector<Key> parseKeys(std::string& bytes);

}  // namespace Mvlog
