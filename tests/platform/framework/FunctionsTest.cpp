#include <gtest/gtest.h>

#include <chrono>
#include <sys/stat.h>
#include <thread>

#include "common/LocalDate.h"
#include "common/TempHome.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PropertyList.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/UrlOpener.h"

using namespace cirrovault;
using test::localDate;
const auto toText = Functions::stringTransFromedDate;
const auto toDate = Functions::dayTransFromedString;

TEST(FunctionsDates, RoundTripsInEveryFormatAndParsingAcceptsShortFieldsAndRefusesNonsense) {
    const char *request = "yyyy-MM-dd HH:mm:ss", *reply = "MM/dd/yyyy HH:mm:ss";
    EXPECT_EQ(toText(localDate(2024, 3, 5, 17, 8, 9.75), request), "2024-03-05 17:08:09");
    EXPECT_EQ(toText(localDate(2024, 3, 5, 17, 8, 9.75), reply), "03/05/2024 17:08:09");
    EXPECT_EQ(toDate("03/05/2024 17:08:09", reply), localDate(2024, 3, 5, 17, 8, 9));
    // Every day of a leap year survives both formats.
    for (Date d = localDate(2024, 1, 1, 12, 0, 0); d < localDate(2025, 1, 1, 0, 0, 0);
         d = d.addingTimeInterval(86400))
        for (const char* format : {request, reply})
            EXPECT_EQ(toDate(toText(d, format), format), d) << format;

    const char* format = "MM/dd/yyyy hh:mm:ss a";
    EXPECT_EQ(toText(localDate(2024, 3, 5, 0, 5, 0), format), "03/05/2024 12:05:00 AM");
    EXPECT_EQ(toText(localDate(2024, 3, 5, 13, 5, 0), format), "03/05/2024 01:05:00 PM");
    EXPECT_EQ(toDate("03/05/2024 12:05:00 AM", format), localDate(2024, 3, 5, 0, 5, 0));
    EXPECT_EQ(toDate("03/05/2024 12:05:00 pm", format), localDate(2024, 3, 5, 12, 5, 0));
    EXPECT_EQ(toDate("03/05/2024 1:05:00 PM", format), localDate(2024, 3, 5, 13, 5, 0));

    // "mm" is minutes: the month of such a text is lost and the later minute field wins.
    EXPECT_EQ(toDate("03/15/2024 02:30:00", "mm/dd/yyyy hh:mm:ss"),
              localDate(2024, 1, 15, 2, 30, 0));
    EXPECT_EQ(toText(localDate(2024, 3, 5, 14, 7, 0), "mm/dd/yyyy hh:mm:ss"),
              "07/05/2024 02:07:00");

    format = request;
    EXPECT_EQ(toDate("2099-1-1 00:00:00", format), localDate(2099, 1, 1, 0, 0, 0));
    EXPECT_EQ(toDate("2099-1-1 0:0:0 ", format), localDate(2099, 1, 1, 0, 0, 0));
    for (const char* bad : {"", "abc", "2024-02-30 00:00:00", "2023-02-29 00:00:00",
                            "2024-13-01 00:00:00", "2024-01-01 24:00:00", "2024-01-01 00:60:00",
                            "2024-01-01", "2024-01-01 00:00:00x", "2024/01/01 00:00:00"})
        EXPECT_FALSE(toDate(bad, format)) << bad;
    EXPECT_TRUE(toDate("2024-02-29 00:00:00", format));
    // Adjacent numeric fields take the pattern's width.
    EXPECT_EQ(toDate("20240305", "yyyyMMdd"), localDate(2024, 3, 5, 0, 0, 0));

    // Dates from the server come in several forms; the reply has one.
    for (auto [server, reply] : std::vector<std::pair<std::string, std::string>>{
             {"03/05/2024 17:08:09", "03/05/2024 17:08:09"}, {"3/5/2024 7:08:09", "03/05/2024 07:08:09"},
             {"3/5/2024 1:02:03 PM", "03/05/2024 13:02:03"}, {" 2024-03-05T17:08:09", "03/05/2024 17:08:09"},
             {"2024-03-05", "03/05/2024 00:00:00"}, {"yesterday", ""}, {"", ""}})
        EXPECT_EQ(Functions::stringFromSvrDate(server), reply) << server;
}

TEST(FunctionsDates, ComponentsByUnitAndWeekday) {
    using Fields = std::tuple<int, int, int, int, int, double>;
    auto fields = [](const DateComponents& c) {
        return Fields{c.year, c.month, c.day, c.hour, c.minute, c.second};
    };
    Date date = localDate(2024, 2, 1, 10, 30, 15.5);
    DateComponents none; // what a unit not asked for keeps
    EXPECT_EQ(fields(Functions::GetDateComponentsFromNSDateAndNSCalendar(date, 224)),
              (Fields{none.year, none.month, none.day, 10, 30, 15.5}));
    EXPECT_EQ(fields(Functions::GetDateComponentsFromNSDateAndNSCalendar(date, 156)),
              (Fields{2024, 2, 1, 0, none.minute, 15.5}));
    // A Thursday and a Sunday; Sunday is 1.
    EXPECT_EQ(std::make_pair(Functions::getDayOfWeekly(date),
                             Functions::getDayOfWeekly(localDate(2024, 2, 4, 0, 0, 0))),
              std::make_pair(5, 1));
}

TEST(FunctionsText, SizesAndReplyValuesByExactKey) {
    for (auto [size, text] : std::vector<std::pair<uint64_t, std::string>>{
             {0, "0 B"}, {1023, "1023 B"}, {1024, "1.00 KB"}, {1536, "1.50 KB"},
             {1048576, "1.00 MB"}, {3221225472, "3.00 GB"}, {1099511627776, "1.00 TB"}})
        EXPECT_EQ(Functions::FormatSizeToString(size), text);

    using Values = std::vector<std::string>;
    std::string reply = "RETURN_TaskName=a%20b&RETURN_TaskNameX=z&XRETURN_TaskName=q&"
                        "RETURN_TaskName=c%26d&noequals&RETURN_TaskName=&";
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_TaskName", reply), (Values{"a b", "c&d", ""}));
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_TaskName", "").size() +
                  Functions::GetValueArrayByKey("Missing", reply).size(),
              0u);
    EXPECT_EQ(Functions::GetValueArrayByKey("K", "K=1=2"), (Values{"1=2"}));
}

TEST(FunctionsText, EncryptedPathsByFirstComponent) {
    test::TempHome home;
    std::string folder = LoadString::GetValueByKey("EncryptionFolder");
    ASSERT_FALSE(folder.empty());
    EXPECT_TRUE(Functions::IsEncryptPath("\\" + folder + "\\History\\x") &&
                Functions::IsEncryptPath(folder));
    for (const std::string& other : {"\\" + folder + "X\\y", "\\Backup\\" + folder, std::string()})
        EXPECT_FALSE(Functions::IsEncryptPath(other)) << other;

    // A string table that names no encryption folder makes nothing encrypted.
    FileSystem::createDirectories(home.configHome() + "/cirrovault");
    ASSERT_TRUE(PropertyListFile::write(home.configHome() + "/cirrovault/Localizable.plist",
                                        PlistDict{{"EncryptionFolder", ""}}));
    LoadString::Reload();
    EXPECT_FALSE(Functions::IsEncryptPath("\\" + folder + "\\x"));
}

TEST(FunctionsWeb, OpensAddressesThroughTheOpener) {
    test::TempHome home;
    TransferApiUtil::releaseTransferApiUtil();
    std::string script = home.file("opener.sh"), seen = home.file("seen.txt");
    ASSERT_TRUE(FileSystem::writeFileAtomically(
        script, "#!/bin/sh\nprintf '%s' \"$1\" > \"" + seen + ".part\" && mv \"" + seen + ".part\" \"" + seen + "\"\n"));
    ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
    UrlOpener::setOpenerProgram(script);

    std::string url = "https://example.test/page?a=1&b=two words";
    EXPECT_TRUE(Functions::OpenURLLink(url, true)); // a full address is opened as it is
    // The opener runs on its own; wait for its file rather than for the clock.
    for (int i = 0; i < 1000 && !FileSystem::exists(seen); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(FileSystem::readFile(seen), url);
    // A service page needs a web host (the local store has none); a missing opener opens nothing.
    EXPECT_FALSE(Functions::OpenURLLink("/Secure/Deposit.aspx", true) ||
                 Functions::OpenURLLink("", false));
    UrlOpener::setOpenerProgram(home.file("no-such-opener"));
    EXPECT_FALSE(Functions::OpenURLLink(url, false));
    UrlOpener::setOpenerProgram("");
}
