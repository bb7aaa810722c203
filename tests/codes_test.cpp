#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "core/core.h"
#include "refdata/refdata.h"

namespace orv::refdata {
namespace {

TEST(FixedCode, ValidationFoldsCaseAndRejectsEverythingElse) {
    struct Case {
        std::string text;
        bool airportOk;
        std::string view;
    };
    const Case cases[] = {
        {"EHAM", true, "EHAM"},
        {"eham", true, "EHAM"},
        {"00AK", true, "00AK"},
        {"EHA", false, ""},
        {"EHAMX", false, ""},
        {"EH M", false, ""},
        {"EH\xC3\x84M", false, ""},
        {"", false, ""},
        {"EH-M", false, ""},
        {"EHa1", true, "EHA1"},
        {std::string("EH\0M", 4), false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto maybe = AirportCode::tryMake(c.text);
        EXPECT_EQ(maybe.has_value(), c.airportOk);
        if (c.airportOk) {
            EXPECT_EQ(AirportCode(c.text).view(), c.view);
            EXPECT_EQ(maybe->view(), c.view);
        } else {
            try {
                AirportCode code(c.text);
                ADD_FAILURE() << "no exception";
            } catch (const std::invalid_argument& e) {
                EXPECT_STREQ(e.what(), "FixedCode: invalid string (length/charset)");
            }
        }
    }
    EXPECT_EQ(IataCode("1G4").view(), "1G4");
    EXPECT_FALSE(IataCode::tryMake("1G44"));
}

TEST(FixedCode, EmptyCodePrintsBlanksAndComparesByBytes) {
    const AirportCode empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.view(), "    ");
    EXPECT_EQ(IataCode().view(), "   ");
    EXPECT_EQ(std::hash<AirportCode>{}(empty), static_cast<std::size_t>(fnv1a("    ")));
    EXPECT_EQ(AirportCode("eham"), AirportCode("EHAM"));
    EXPECT_LT(AirportCode("EHAM"), AirportCode("KMSP"));
    EXPECT_EQ(sizeof(AirportCode), 4u);
    EXPECT_EQ(sizeof(IataCode), 3u);
    EXPECT_NE(codeWord(AirportCode("EHAM")), codeWord(AirportCode("MAHE")));
}

TEST(CodeTables, HandlesAreStableAndUnknownHandlesAreEmpty) {
    EXPECT_EQ(airlineId(""), 0);
    EXPECT_EQ(airlineCode(0), "");
    const auto klm = airlineId("KLM");
    EXPECT_EQ(airlineId("KLM"), klm);
    EXPECT_NE(airlineId("DAL"), klm);
    EXPECT_EQ(airlineCode(klm), "KLM");
    // Text is taken as given: callers fold case themselves.
    EXPECT_NE(airlineId("klm"), klm);
    EXPECT_EQ(modelCode(65535), "");
    EXPECT_EQ(airlineModelKey(1, 2), 0x00020001u);
}

TEST(CodeTables, ConcurrentAppendsGiveOneHandlePerText) {
    // Four threads intern overlapping texts while a fifth reads handles back.
    constexpr int kTexts = 2000;
    std::vector<std::vector<ModelId>> seen(4, std::vector<ModelId>(kTexts));
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done)
            for (ModelId id = 0; id < 200; ++id) (void)modelCode(id).size();
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w)
        writers.emplace_back([&, w] {
            for (int i = 0; i < kTexts; ++i) {
                const int k = (i + w * 500) % kTexts; // each writer starts elsewhere
                seen[w][k] = modelId("T" + std::to_string(k));
            }
        });
    for (auto& t : writers) t.join();
    done = true;
    reader.join();
    std::set<ModelId> distinct;
    for (int i = 0; i < kTexts; ++i) {
        for (int w = 1; w < 4; ++w) ASSERT_EQ(seen[w][i], seen[0][i]) << i;
        EXPECT_EQ(modelCode(seen[0][i]), "T" + std::to_string(i));
        distinct.insert(seen[0][i]);
    }
    EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kTexts));
}

TEST(Category, WordsRoundTrip) {
    const char* words[] = {"Light", "Buzjets", "Large", "Heavy", "HighPerf", "Rotorcraft"};
    for (int i = 0; i < kCategoryCount; ++i) {
        EXPECT_EQ(categoryWord(static_cast<Category>(i)), words[i]);
        EXPECT_EQ(categoryFromWord(words[i]), static_cast<Category>(i));
    }
    EXPECT_EQ(categoryWord(static_cast<Category>(6)), "");
    EXPECT_FALSE(categoryFromWord("heavy"));
}

TEST(Strings, TrimSplitAndTrimList) {
    EXPECT_EQ(core::trim(" \t GATE \r\n"), "GATE");
    EXPECT_EQ(core::trim(" \t\r\n"), "");
    EXPECT_EQ(core::splitList(""), std::vector<std::string>{});
    EXPECT_EQ(core::splitList("A, B ,,C"), (std::vector<std::string>{"A", "B", "", "C"}));
    EXPECT_EQ(core::splitList(","), (std::vector<std::string>{"", ""}));
    EXPECT_EQ(core::trimList("GATE , CARGO"), "GATE,CARGO");
    EXPECT_EQ(core::trimList("GATE"), "GATE");
    EXPECT_EQ(core::trimList("GATE,,CARGO"), "GATE,,CARGO");
}

TEST(Strings, StrictUnicodeConversions) {
    struct Case {
        std::string utf8;
        bool valid;
    };
    const Case cases[] = {
        {"", true},
        {"Z\xC3\xBCrich", true},
        {"\xF0\x9F\x9B\xAB", true},  // outside the BMP: a surrogate pair
        {"\xE9", false},             // a lone Latin-1 byte
        {"\xC0\xAF", false},         // overlong
        {"\xED\xA0\x80", false},     // an encoded surrogate
        {"\xF4\x90\x80\x80", false}, // above U+10FFFF
        {"\xE2\x82", false},         // cut short
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.utf8);
        if (c.valid) {
            EXPECT_EQ(core::wide_to_utf8(core::utf8_to_wide(c.utf8)), c.utf8);
        } else {
            EXPECT_THROW(
                {
                    try {
                        core::utf8_to_wide(c.utf8);
                    } catch (const std::runtime_error& e) {
                        EXPECT_STREQ(e.what(), "utf8_to_wide: invalid UTF-8");
                        throw;
                    }
                },
                std::runtime_error);
        }
    }
    EXPECT_EQ(core::utf8_to_wide("\xF0\x9F\x9B\xAB").size(), 2u);
    EXPECT_THROW(core::wide_to_utf8(std::u16string(1, char16_t(0xD800))), std::runtime_error);
    EXPECT_THROW(core::wide_to_utf8(std::u16string(1, char16_t(0xDC00))), std::runtime_error);
}

TEST(Strings, AnsiLinesBecomeUtf8) {
    EXPECT_EQ(core::ansiToUtf8(""), "");
    EXPECT_EQ(core::ansiToUtf8("\xE9"), "\xC3\xA9");     // é
    EXPECT_EQ(core::ansiToUtf8("\x80"), "\xE2\x82\xAC"); // the euro sign of Windows-1252
    EXPECT_EQ(core::ansiToUtf8("a\x81z"), "a\xC2\x81z"); // unassigned: the lenient pass keeps it
    EXPECT_EQ(core::ansiToUtf8("plain"), "plain");
}

TEST(UserError, MessageShowsNumberExceptFor99) {
    EXPECT_STREQ(core::UserErrorException(43, "file missing").what(), "43: file missing");
    EXPECT_STREQ(core::UserErrorException(99, "file missing").what(), "file missing");
    const core::UserErrorException e(150, "x");
    EXPECT_EQ(e.number(), 150);
    EXPECT_EQ(e.text(), "x");
}

} // namespace
} // namespace orv::refdata
