#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

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
    EXPECT_FALSE(SystemLog::capturedContains("Error: never"));
    EXPECT_FALSE(SystemLog::capturedContains("Error: Thing::run"));
    EXPECT_EQ(SystemLog::capturedCount("Error: Thing::value"), 1u);
    EXPECT_EQ(SystemLog::capturedCount("Error: Thing::fail"), 1u);
}
