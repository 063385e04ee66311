#include <syslog.h>

#include <gtest/gtest.h>

#include "platform/os/SystemLog.h"

using namespace cirrovault;

// The journal filters by priority: an error line must not hide among the notices.
TEST(SystemLog, ErrorAndWarningLinesKeepTheirPriority) {
    EXPECT_EQ(SystemLog::priority("Error: WebDAV PUT failed"), LOG_ERR);
    EXPECT_EQ(SystemLog::priority("Warning: clock moved back"), LOG_WARNING);
    EXPECT_EQ(SystemLog::priority("LocalStore opened"), LOG_INFO);
    EXPECT_EQ(SystemLog::priority("no Error at the start"), LOG_INFO);
}
