// The weather datagrams' pressure, and the control link with RealTraffic over real TCP.
#include <gtest/gtest.h>

#include "feed/feed.h"
#include "support.h"

namespace orv {
namespace {

void weather(const std::string& datagram) {
    gQnhReader.line = datagram.data();
    gQnhReader.lineLength = datagram.size();
    gQnhReader.processLine();
}

TEST(QnhReader, DatagramsToHectopascals) {
    test::LogCapture log;
    struct Case {
        const char* datagram;
        std::int32_t qnh; // after the datagram, starting from 1013
        const char* logged = nullptr;
    };
    const Case cases[] = {
        {R"({"QNH":1008})", 1008},
        {R"({"QNH":1013.25,"wind":"270/10"})", 1013},
        {R"({"QNH":29.92})", 900}, // small numbers are not converted, only clamped
        {R"({"QNH":2992})", 1013}, // inches of mercury times 100
        {R"({"QNH":1101})", 900},  // converted first, then clamped
        {R"({"QNH":"1008"})", 1008},
        {R"({"QNH":"abc"})", 1013, "QNH string parse error: abc in {\"QNH\":\"abc\"}"},
        {R"({"QNH":"1008hPa"})", 1013, "QNH string parse error: 1008hPa"},
        {R"({"QNH":null})", 1013, "no QNH {\"QNH\":null}"},
        {R"({"wind":"calm"})", 1013, "no QNH {\"wind\":\"calm\"}"},
        {R"({"QNH":[1008]})", 1013, "no QNH"},
        {R"({"QNH":1e12})", 1013, "Exception "},
        {"not json", 1013, "Exception "},
        {R"({"QNH":1200.4})", 900}, // 1200 inHg*100 is 406 hPa, clamped to 900
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.datagram);
        gQnhReader.reset();
        gQnh = 1013;
        weather(c.datagram);
        EXPECT_EQ(gQnh.load(), c.qnh);
        EXPECT_EQ(gQnhReader.lastQnh.load(), c.qnh);
        if (c.logged) {
            EXPECT_TRUE(log.contains(c.logged));
        }
    }
}

TEST(QnhReader, RepeatsArePublishedOnlyFor1013) {
    gQnhReader.reset();
    weather(R"({"QNH":1008})");
    gQnh = 0; // a mark: a publication overwrites it
    weather(R"({"QNH":1008})");
    EXPECT_EQ(gQnh.load(), 0) << "a repeated value other than 1013 is not published again";
    weather(R"({"QNH":1013})");
    gQnh = 0;
    weather(R"({"QNH":1013})");
    EXPECT_EQ(gQnh.load(), 1013) << "1013 is, so the weather light stays fresh";
    gQnhReader.reset();
}

} // namespace
} // namespace orv
