#include <regex>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "core/core.h"
#include "support.h"
#include "ui/ui.h"

namespace orv::core {
namespace {

using test::LogCapture;
using test::TempDir;
using test::writeBytes;

TEST(Log, HeaderThenPlainAndFlushedLines) {
    LogCapture log;
    core::log("plain line");
    core::logFlush("important");
    const auto text = log.text();
    EXPECT_TRUE(std::regex_search(
        text,
        std::regex(
            R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \(utc\) Orvelline version \d+\.\d+\.\d+ for MSFS 2020/2024\n)")))
        << text;
    EXPECT_NE(text.find("\nplain line\n==> important\n"), std::string::npos) << text;
}

// A line followed by silence still reaches the file within about a second: a process killed
// then leaves it. Repeats waiting to be counted are written with it.
TEST(Log, ALastLineReachesTheFileWithoutAnotherAfterIt) {
    LogCapture log;
    core::log("the last word");
    core::log("the last word");
    bool there = false;
    for (int i = 0; i < 40 && !there; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        there = log.unflushedText().find("the last word\n    (the line above came 1 more time)") !=
                std::string::npos;
    }
    EXPECT_TRUE(there) << log.unflushedText();
}

TEST(Log, UnwritableFileThrowsAndClosedLogIgnoresLines) {
    EXPECT_THROW(core::openLog("/nonexistent-folder/Log.txt"), std::runtime_error);
    core::log("nowhere"); // must not crash
    core::logFlush("nowhere");
}

// A flood of input cannot fill the disk: long lines are cut, repeats counted, and a full log
// becomes the first generation of a new one. What was said reaches the file each second.
TEST(Log, LongLinesRepeatsGenerationsAndTheCap) {
    TempDir dir;
    const auto file = dir / "Log.txt";
    writeBytes(file, "the previous run\n");
    core::openLog(file);
    EXPECT_EQ(test::readBytes(dir / "Log.1.txt"), "the previous run\n") << "the last run's log is kept";
    core::log(std::string(5000, 'x'));
    for (int i = 0; i < 5; ++i) core::log("traffic line refused: 28 fields, 29 needed");
    core::log("something else");
    core::logTick();
    auto text = test::readBytes(file);
    EXPECT_NE(text.find(std::string(2000, 'x') + "... (3000 more bytes cut)\n"), std::string::npos);
    EXPECT_NE(text.find("traffic line refused: 28 fields, 29 needed\n    (the line above came 4 more times)\n"
                        "something else\n"),
              std::string::npos)
        << text;
    core::setLogCapBytes(10000);
    for (int i = 0; i < 1500; ++i) core::log(fmt::format("line {}", i));
    core::logTick();
    text = test::readBytes(file);
    EXPECT_LT(text.size(), 12000u);
    EXPECT_NE(text.find("the earlier lines are in the .1 file"), std::string::npos);
    EXPECT_NE(text.find("line 1499\n"), std::string::npos);
    EXPECT_NE(test::readBytes(dir / "Log.1.txt").find("something else"), std::string::npos);
    EXPECT_EQ(test::readBytes(dir / "Log.2.txt"), "the previous run\n");
    core::setLogCapBytes(50u << 20);
    core::closeLog();
}

TEST(Messages, EmptyClearsSilentlyErrorBlocksAndOldMessagesExpire) {
    LogCapture log;
    resetMessages();
    message("hello", true);
    EXPECT_EQ(messageLine(), "hello");
    message("", true);
    EXPECT_EQ(messageLine(), "");

    messageSecond();
    message("fades");
    for (int s = 0; s < 24; ++s) messageSecond();
    EXPECT_EQ(messageLine(), "fades");
    messageSecond();
    EXPECT_EQ(messageLine(), "");

    error("disk full");
    message("ignored while an error shows", true);
    EXPECT_EQ(messageLine(), "");
    EXPECT_EQ(errorLine(), "disk full");
    const auto text = log.text();
    EXPECT_NE(text.find("hello\n"), std::string::npos);
    EXPECT_NE(text.find("Error disk full\n"), std::string::npos);
    EXPECT_EQ(text.find("ignored while"), std::string::npos);
    // The empty message logged nothing: "hello" is followed by the error line directly.
    EXPECT_NE(text.find("hello\nError disk full"), std::string::npos) << text;
    resetMessages();
}

TEST(TextFiles, EncodingDetection) {
    struct Case {
        const char* name;
        std::string bytes;
        Encoding expected;
    };
    const Case cases[] = {
        {"empty", "", Encoding::Utf8WithoutBom},
        {"one ascii byte", "A", Encoding::Utf8WithoutBom},
        {"one high byte", "\xE9", Encoding::Ansi},
        {"utf8 bom", "\xEF\xBB\xBFhi", Encoding::Utf8WithBom},
        {"utf16le bom", "\xFF\xFEh\0", Encoding::Unicode},
        {"utf16le no bom, two bytes", std::string("A\0", 2), Encoding::Unicode},
        {"utf16le no bom", std::string("A\0B\0", 4), Encoding::Unicode},
        {"utf16be bom", std::string("\xFE\xFF\0h", 4), Encoding::UnicodeBigEndian},
        {"utf16be no bom", std::string("\0A\0B", 4), Encoding::UnicodeBigEndian},
        {"utf8 text", "Z\xC3\xBCrich", Encoding::Utf8WithoutBom},
        {"latin1 text", "Z\xFCrich", Encoding::Ansi},
        {"C0 lead", "a\xC0\x80", Encoding::Ansi},
        {"above F4", "a\xF5\x80\x80\x80", Encoding::Ansi},
        {"E0 overlong", "a\xE0\x80\x80", Encoding::Ansi},
        {"F0 overlong", "a\xF0\x80\x80\x80", Encoding::Ansi},
        {"F4 too high", "a\xF4\x90\x80\x80", Encoding::Ansi},
        {"cut at end", "ab\xE2\x82", Encoding::Ansi},
    };
    TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeBytes(dir / "f.txt", c.bytes);
        EXPECT_EQ(detectEncoding(dir / "f.txt"), c.expected);
    }
    EXPECT_EQ(detectEncoding(dir / "missing.txt"), Encoding::NoneFound);
    // A multi-byte sequence cut by the 4096-byte window counts as not UTF-8.
    writeBytes(dir / "long.txt", std::string(4095, 'a') + "\xC3\xA9");
    EXPECT_EQ(detectEncoding(dir / "long.txt"), Encoding::Ansi);
}

TEST(TextFiles, EveryEncodingReadsAsUtf8Lines) {
    struct Case {
        const char* name;
        std::string bytes;
    };
    const std::vector<std::string> expected = {"Z\xC3\xBCrich", "", "EHAM"};
    const auto le = [](const std::u16string& s, bool bom, bool big) {
        std::string out = bom ? (big ? std::string("\xFE\xFF") : std::string("\xFF\xFE")) : std::string();
        for (char16_t c : s) {
            const char lo = static_cast<char>(c & 0xFF), hi = static_cast<char>(c >> 8);
            out += big ? std::string{hi, lo} : std::string{lo, hi};
        }
        return out;
    };
    const Case cases[] = {
        {"utf8", "Z\xC3\xBCrich\r\n\nEHAM\n"},
        {"utf8 bom", "\xEF\xBB\xBFZ\xC3\xBCrich\n\nEHAM"},
        {"ansi", "Z\xFCrich\n\r\nEHAM\n"},
        {"utf16le", le(u"Z\u00FCrich\r\n\r\nEHAM\r\n", true, false)},
        {"utf16be", le(u"Z\u00FCrich\n\nEHAM", true, true)},
    };
    TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeBytes(dir / "f.txt", c.bytes);
        std::vector<std::string> lines{"stale"};
        ASSERT_TRUE(readLines(detectEncoding(dir / "f.txt"), dir / "f.txt", lines));
        EXPECT_EQ(lines, expected);
    }
    resetMessages();
    std::vector<std::string> lines;
    EXPECT_FALSE(readLines(Encoding::NoneFound, dir / "f.txt", lines));
    EXPECT_NE(messageLine().find("has unknown charset: 5"), std::string::npos) << messageLine();
    resetMessages();
}

// Files are read in pieces of 64 KB: a CR-LF, a UTF-8 character and a UTF-16 surrogate pair cut
// by a piece's end still read whole; a line beyond the limit is cut there.
TEST(TextFiles, PiecesJoinAtEveryBoundary) {
    const auto utf16le = [](const std::u16string& s) {
        std::string out("\xFF\xFE");
        for (char16_t c : s) out += std::string{static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
        return out;
    };
    const std::string padLine(65534, 'a'), pad = padLine + "\n"; // the next byte ends the first piece
    struct Case {
        const char* name;
        std::string bytes;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {"CR-LF across", pad + "\r\nB", {padLine, "", "B"}},
        {"UTF-8 across", pad + "\xC3\xBC\nB", {padLine, "\xC3\xBC", "B"}},
        // The BOM and 32,766 units fill the first piece but its last two bytes: the pair's first half.
        {"surrogate pair across",
         utf16le(std::u16string(32766, u'a') + u"\U0001F600\nB"),
         {std::string(32766, 'a') + "\xF0\x9F\x98\x80", "B"}},
        {"line beyond the limit",
         std::string(kMaxTextLineBytes + 9000, 'x') + "\nend",
         {std::string(kMaxTextLineBytes, 'x'), "end"}},
    };
    TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeBytes(dir / "f.txt", c.bytes);
        std::vector<std::string> lines;
        ASSERT_TRUE(readLines(detectEncoding(dir / "f.txt"), dir / "f.txt", lines));
        EXPECT_TRUE(lines == c.lines) << lines.size() << " lines, the last " << lines.back().substr(0, 40);
    }
    // Stopping early reads no further.
    writeBytes(dir / "f.txt", "a\nb\nc\n");
    std::vector<std::string> seen;
    ASSERT_TRUE(streamLines(Encoding::Utf8WithoutBom, dir / "f.txt", [&](std::string_view l) {
        seen.emplace_back(l);
        return l != "b";
    }));
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
}

TEST(TextFiles, ReadAllLinesAndWriteText) {
    TempDir dir;
    std::vector<std::string> lines;
    const auto missing = readAllLines(dir / "none", lines, 10);
    ASSERT_TRUE(std::holds_alternative<std::string>(missing));
    EXPECT_EQ(std::get<std::string>(missing), "open_failed");

    ASSERT_TRUE(writeText("a\nb", dir / "out.txt", true));
    EXPECT_EQ(test::readBytes(dir / "out.txt"), "a\nb\n");
    ASSERT_TRUE(writeText("c", dir / "out.txt", false));
    EXPECT_EQ(test::readBytes(dir / "out.txt"), "c");
    EXPECT_FALSE(fs::exists(dir / "out.txt.tmp"));
    EXPECT_FALSE(writeText("x", dir / "no" / "such" / "folder.txt", false));

    const auto n = readAllLines(dir / "out.txt", lines, 10);
    ASSERT_TRUE(std::holds_alternative<std::size_t>(n));
    EXPECT_EQ(std::get<std::size_t>(n), 1u);
    EXPECT_GE(lines.capacity(), 10u);
}

} // namespace
} // namespace orv::core
