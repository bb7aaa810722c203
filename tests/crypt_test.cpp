#include <gtest/gtest.h>

#include "refdata/refdata.h"
#include "support.h"

namespace orv::refdata {
namespace {

using test::readBytes;
using test::writeBytes;

std::string pattern(std::size_t n) {
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + 7) % 251);
    return s;
}

TEST(EncryptedFiles, RoundTripAtEveryChunkBoundary) {
    test::TempDir dir;
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kCryptChunk - 1, kCryptChunk,
                                   kCryptChunk + 1, 3 * kCryptChunk, 3 * kCryptChunk + 17}) {
        SCOPED_TRACE(size);
        const auto plain = pattern(size);
        writeBytes(dir / "plain", plain);
        ASSERT_EQ(streamEncrypt(dir / "plain", dir / "f.enc"), "");
        // Header, full chunks of 4113 bytes, and a final chunk (empty when the text ended on a boundary).
        const std::size_t chunks = size == 0 ? 1 : (size + kCryptChunk - 1) / kCryptChunk;
        EXPECT_EQ(fs::file_size(dir / "f.enc"), 24 + size + 17 * chunks);
        ASSERT_TRUE(streamDecrypt(dir / "f.enc", dir / "f.xml"));
        EXPECT_EQ(readBytes(dir / "f.xml"), plain);
    }
}

TEST(EncryptedFiles, DamageIsRefusedAndLeavesNoPlainFile) {
    test::LogCapture log;
    test::TempDir dir;
    writeBytes(dir / "plain", pattern(2 * kCryptChunk + 100));
    ASSERT_EQ(streamEncrypt(dir / "plain", dir / "good.enc"), "");
    const auto good = readBytes(dir / "good.enc");

    struct Case {
        const char* name;
        std::string bytes;
        bool ok;
        std::string log;
        std::size_t plainSize = 0;
    };
    auto flipped = good;
    flipped[24 + 4113 + 50] ^= 0x01; // inside the second chunk
    auto badHeader = good;
    badHeader[3] ^= 0x80;
    const Case cases[] = {
        {"flipped byte in a chunk", flipped, false, "streamDecrypt exception: Decryption failed"},
        {"header of another key", badHeader, false, "Decryption failed"},
        {"short header", good.substr(0, 10), false, "streamDecrypt exception: Invalid header or key"},
        {"header alone", good.substr(0, 24), true, "", 0},
        {"no final tag", good.substr(0, 24 + 4113), true, "", kCryptChunk},
        {"cut inside a chunk", good.substr(0, 24 + 4113 + 200), false, "Decryption failed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeBytes(dir / "f.enc", c.bytes);
        writeBytes(dir / "f.xml", "stale plain text from before");
        EXPECT_EQ(streamDecrypt(dir / "f.enc", dir / "f.xml"), c.ok);
        if (c.ok) {
            EXPECT_EQ(fs::file_size(dir / "f.xml"), c.plainSize);
        } else {
            EXPECT_FALSE(fs::exists(dir / "f.xml"));
            EXPECT_TRUE(log.contains(c.log));
        }
        EXPECT_FALSE(fs::exists(dir / "f.xml.part"));
    }
    EXPECT_FALSE(streamDecrypt(dir / "missing.enc", dir / "f.xml"));
    EXPECT_TRUE(log.contains("Could not open input file: "));
}

TEST(EncryptedFiles, RemoveFileIsQuietWhenNothingIsThere) {
    test::LogCapture log;
    test::TempDir dir;
    removeFile(dir / "absent");
    writeBytes(dir / "present", "x");
    removeFile(dir / "present");
    EXPECT_FALSE(fs::exists(dir / "present"));
    fs::create_directories(dir / "full" / "inner");
    removeFile(dir / "full"); // a folder with content cannot go: a warning, no exception
    EXPECT_TRUE(log.contains("Warning: could not remove "));
}

} // namespace
} // namespace orv::refdata
