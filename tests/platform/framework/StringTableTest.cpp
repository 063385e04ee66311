#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>

#include "common/TempHome.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

namespace {
// The checkout this test was built from (set by the build: compiler caches shorten __FILE__).
const std::filesystem::path sourceRoot = CV_SOURCE_ROOT;
const std::string tableFile = (sourceRoot / "resources" / "Localizable.plist").string();

size_t placeholderCount(const std::string& text) {
    static const std::regex placeholder(R"(\{[^{}]*\})");
    return std::distance(std::sregex_iterator(text.begin(), text.end(), placeholder),
                         std::sregex_iterator());
}
} // namespace

TEST(StringTable, FileIsASortedPlainDictionaryOfUsableFolderNamesAndEveryTextTheSourcesAskFor) {
    test::TempHome home; // no override table in the user's folder
    auto text = FileSystem::readFile(tableFile).value_or("");
    EXPECT_EQ(text.find("<!DOCTYPE"), std::string::npos);
    auto table = PropertyList::parse(text);
    ASSERT_TRUE(table && table->isDict()) << tableFile;

    // Keys in the order the file writes them: sorted and unique, so merges stay easy.
    static const std::regex keyLine(R"(<key>([^<]*)</key>)");
    std::vector<std::string> keys;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), keyLine);
         it != std::sregex_iterator(); ++it)
        keys.push_back((*it)[1]);
    EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
    EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end()) << "a key is written twice";
    EXPECT_EQ(keys.size(), table->dict()->size());

    for (const auto& [key, value] : *table->dict()) {
        ASSERT_TRUE(value.isString()) << key;
        EXPECT_EQ(LoadString::GetValueByKey(key, "<missing>"), *value.string()) << key;
    }

    // Folder names fit server and local paths.
    for (const char* key : {"ApplicationDataPath", "ServerStoreTaskPath", "IDS_HISTFOLDER",
                            "IDS_INFOPATH", "IDS_DATAPATH", "EncryptionFolder", "CacheRootFolderName",
                            "ProductName", "IDS_STRPRODUCT", "GlobalDataFolderName", "TrashFolder"}) {
        std::string name = LoadString::GetValueByKey(key, "");
        EXPECT_TRUE(!name.empty() && name.find_first_of("\\/:*?\"<>|") == std::string::npos &&
                    name.front() != ' ' && name.back() != ' ' && name.front() != '.')
            << key << ": \"" << name << "\"";
    }
    // The history and info folders sit side by side with the task folders.
    EXPECT_NE(LoadString::GetValueByKey("IDS_HISTFOLDER"),
              LoadString::GetValueByKey("IDS_INFOPATH"));

    // Texts the engine formats, with the number of arguments it passes, in order.
    const std::map<std::string, size_t> formatted = {
        {"FailEmailTitle", 3}, {"FalilEmailBoty", 4}, {"FileChangedWhileRead", 1},
        {"IDS_NEEDMOREBUYSPACE", 3}, {"IDS_STRFAILCONTRYTIME", 2}, {"IDS_STRMINUTES", 1},
        {"IDS_STRNEEDMORESPACE", 4}, {"IDS_STRRATE", 1}, {"IDS_STRSECONDS", 1},
        {"IDS_TASKNAMEFOR", 1}, {"IdentityDamaged", 1}, {"NeedMoreBuySpace", 1},
        {"OrvoSubItemLimitation", 2}, {"ReScanFile", 3}, {"RestoreNoSpace", 4},
        {"ServerPathError", 1}, {"SourceUnreadable", 1}, {"StrLogUploadFail", 3},
        {"UploadRetriesEnded", 1}, {"SubUserHaveBuyStorageSpace", 3}, {"SuccessEmailBoby", 3},
        {"SuccessEmailTitle", 3}, {"TimeFormat", 3}, {"NameTooLongLeftOut", 1},
        {"ReportFigures", 6}};
    SystemLog::startCapture();
    for (const auto& [key, value] : *table->dict())
        EXPECT_EQ(placeholderCount(*value.string()),
                  formatted.contains(key) ? formatted.at(key) : 0)
            << key;
    // Numbers and texts both fit every placeholder.
    for (const auto& [key, count] : formatted) {
        fmt::dynamic_format_arg_store<fmt::format_context> numbers, texts;
        for (size_t i = 0; i < count; ++i) {
            numbers.push_back(static_cast<uint64_t>(i + 7));
            texts.push_back(std::string("x"));
        }
        std::string text = LoadString::GetValueByKey(key, "");
        EXPECT_NO_THROW({
            fmt::vformat(text, numbers);
            fmt::vformat(text, texts);
        }) << key;
    }
    EXPECT_EQ(LoadString::Format("TimeFormat", 1, 2, 3) + LoadString::Format("IDS_TASKNAMEFOR", 0),
              "1:02:03Backup Task 0");
    EXPECT_FALSE(SystemLog::capturedContains("malformed"));
    SystemLog::stopCapture();

    // Every key the sources ask for is in the table.
    static const std::regex lookup(
        R"((?:GetValueByKey|LoadString::Format|LoadString::HasKey)\(\s*"([^"]+)\")");
    std::map<std::string, std::string> usedIn; // key → first file that uses it
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sourceRoot / "src")) {
        auto extension = entry.path().extension();
        if (!entry.is_regular_file() || (extension != ".cpp" && extension != ".h"))
            continue;
        auto code = FileSystem::readFile(entry.path().string());
        ASSERT_TRUE(code) << entry.path();
        for (auto it = std::sregex_iterator(code->begin(), code->end(), lookup);
             it != std::sregex_iterator(); ++it)
            usedIn.try_emplace((*it)[1], entry.path().lexically_relative(sourceRoot).string());
    }
    EXPECT_GT(usedIn.size(), 3u) << "the search found no lookups: has the code moved?";
    for (const auto& [key, file] : usedIn)
        EXPECT_TRUE(LoadString::HasKey(key)) << "\"" << key << "\" used in " << file;
}
