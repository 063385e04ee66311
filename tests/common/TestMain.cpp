#include <gtest/gtest.h>

#include "platform/os/SystemLog.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Tests read the log through the capture; they must not fill the machine's syslog.
    cirrovault::SystemLog::setSyslogEnabled(false);
    return RUN_ALL_TESTS();
}
