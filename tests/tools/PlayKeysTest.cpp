#include "KeyboardInput.h"
#include "TerminalSession.h"
#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <regex>
#include <string>
#include <thread>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;
using Mvlog::Key;
using Mvlog::parseKeys;

TEST(ParseKeys, SpaceQuitAndArrowsInBothCursorModes) {
    std::string bytes = " q\x1b[C\x1b[D\x1bOC\x1bOD\x1b[1;5CQx";
    EXPECT_EQ(parseKeys(bytes), (std::vector<Key>{Key::Space, Key::Quit, Key::Right, Key::Left, Key::Right,
                                                  Key::Left, Key::Right, Key::Quit}));
    EXPECT_TRUE(bytes.empty());
}

TEST(ParseKeys, ASequenceCutShortWaitsForTheRest) {
    std::string bytes = " \x1b[";
    EXPECT_EQ(parseKeys(bytes), std::vector<Key>{Key::Space});
    EXPECT_EQ(bytes, "\x1b[");
    bytes += "D";
    EXPECT_EQ(parseKeys(bytes), std::vector<Key>{Key::Left});
    EXPECT_TRUE(bytes.empty());

    bytes = "\x1b";
    EXPECT_TRUE(parseKeys(bytes).empty());
    EXPECT_EQ(bytes, "\x1b");
    // A lone escape key, then a space.
    bytes += " ";
    EXPECT_EQ(parseKeys(bytes), std::vector<Key>{Key::Space});
    EXPECT_TRUE(bytes.empty());
}

TEST(ParseKeys, OtherKeysAndSequencesAreIgnored) {
    std::string bytes = "ab\x1b[A\x1b[B\x1b[5~\n";
    EXPECT_TRUE(parseKeys(bytes).empty());
    EXPECT_TRUE(bytes.empty());
}

// The frame on the status line the program drew last, and whether that line
// says the replay is paused.
struct StatusShown {
    int frame = -1;
    bool paused = false;
};

StatusShown lastStatus(const std::string& screen) {
    const std::size_t at = screen.rfind("frame ");
    if (at == std::string::npos) {
        return {};
    }
    const std::string line = screen.substr(at, screen.find_first_of("\r\n", at) - at);
    std::smatch match;
    static const std::regex kFrame("^frame (\\d+)/100 ");
    if (!std::regex_search(line, match, kFrame)) {
        return {};
    }
    return {std::stoi(match[1]), line.find("[paused: space resumes, arrow keys step]") != std::string::npos};
}

TEST(PlayKeys, SpacePausesArrowsStepAndQStops) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    // 101 frames 100 ms apart: about ten frames a second at 1x.
    TerminalSession session({"play", path});
    ASSERT_TRUE(session.started());
    ASSERT_TRUE(session.readUntil([](const std::string& screen) { return lastStatus(screen).frame >= 3; },
                                  std::chrono::seconds(20)))
        << session.screen;
    EXPECT_NE(session.screen.find("; space pauses, arrow keys step, q or Ctrl-C stops"), std::string::npos)
        << session.screen;

    session.type(" ");
    ASSERT_TRUE(session.readUntil([](const std::string& screen) { return lastStatus(screen).paused; },
                                  std::chrono::seconds(10)))
        << session.screen;
    // A frame already on its way may still be drawn; then nothing moves.
    session.readFor(std::chrono::milliseconds(300));
    const int paused = lastStatus(session.screen).frame;
    session.readFor(std::chrono::milliseconds(700));
    EXPECT_EQ(lastStatus(session.screen).frame, paused);
    EXPECT_TRUE(lastStatus(session.screen).paused);

    session.type("\x1b[C");
    ASSERT_TRUE(session.readUntil(
        [paused](const std::string& screen) { return lastStatus(screen).frame == paused + 1; },
        std::chrono::seconds(10)))
        << session.screen;
    session.type("\x1b[D\x1b[D");
    ASSERT_TRUE(session.readUntil(
        [paused](const std::string& screen) { return lastStatus(screen).frame == paused - 1; },
        std::chrono::seconds(10)))
        << session.screen;
    EXPECT_TRUE(lastStatus(session.screen).paused);

    session.type(" ");
    ASSERT_TRUE(session.readUntil(
        [paused](const std::string& screen) {
            const StatusShown shown = lastStatus(screen);
            return shown.frame >= paused + 2 && !shown.paused;
        },
        std::chrono::seconds(10)))
        << session.screen;

    session.type("q");
    EXPECT_EQ(session.exitCode(), 0) << session.screen;
    EXPECT_NE(session.screen.find("(interrupted)"), std::string::npos) << session.screen;
}

TEST(PlayKeys, StepsStayWithinTheFramesAndResumingOnTheLastEndsTheReplay) {
    TempDir directory;
    const std::string path = directory.file("known.mvlog");
    writeKnownFile(path);
    // A tenth of the speed: a second between frames, time enough to type.
    TerminalSession session({"play", path, "--start", "+9.7", "--speed", "0.1"});
    ASSERT_TRUE(session.started());
    ASSERT_TRUE(session.readUntil([](const std::string& screen) { return lastStatus(screen).frame == 97; },
                                  std::chrono::seconds(20)))
        << session.screen;
    // Stepping forward pauses the replay and ends on the last frame, which it
    // never passes.
    session.type("\x1b[C\x1b[C\x1b[C\x1b[C\x1b[C");
    ASSERT_TRUE(session.readUntil(
        [](const std::string& screen) {
            const StatusShown shown = lastStatus(screen);
            return shown.frame == 100 && shown.paused;
        },
        std::chrono::seconds(10)))
        << session.screen;
    session.readFor(std::chrono::milliseconds(300));
    EXPECT_EQ(lastStatus(session.screen).frame, 100);
    session.type(" ");
    EXPECT_EQ(session.exitCode(), 0) << session.screen;
    EXPECT_NE(session.screen.find("Played "), std::string::npos) << session.screen;
    EXPECT_EQ(session.screen.find("(interrupted)"), std::string::npos) << session.screen;
}

}  // namespace
}  // namespace MvlogTest
