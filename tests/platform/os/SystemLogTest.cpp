#include <syslog.h>

#include <gtest/gtest.h>

#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

// The journal filters by priority: an error line must not hide among the notices.
TEST(SystemLog, ErrorAndWarningLinesKeepTheirPriority) {
    EXPECT_EQ((std::vector{SystemLog::priority("Error: WebDAV PUT failed"),
                           SystemLog::priority("Warning: clock moved back"),
                           SystemLog::priority("LocalStore opened"),
                           SystemLog::priority("no Error at the start")}),
              (std::vector{LOG_ERR, LOG_WARNING, LOG_INFO, LOG_INFO}));
}

TEST(Guarded, AnswersTheBodyOrLogsAndAnswersTheFallback) {
    SystemLog::startCapture();
    EXPECT_EQ(guarded("Error: never", std::string("fallback"), [] { return std::string("body"); }),
              "body");
    EXPECT_EQ(guarded("Error: Thing::value", 7, []() -> int { throw std::runtime_error("x"); }), 7);
    int ran = 0;
    guarded("Error: Thing::run", [&] { ++ran; });
    guarded("Error: Thing::fail", [&] {
        ++ran;
        throw std::out_of_range("y");
    });
    SystemLog::stopCapture();
    EXPECT_EQ(ran, 2);
    EXPECT_FALSE(SystemLog::capturedContains("Error: never") ||
                 SystemLog::capturedContains("Error: Thing::run"));
    EXPECT_EQ(std::make_pair(SystemLog::capturedCount("Error: Thing::value"),
                             SystemLog::capturedCount("Error: Thing::fail")),
              std::make_pair(size_t{1}, size_t{1}));
}
