#include <chrono>
#include <csignal>
#include <thread>

#include <gtest/gtest.h>

#include "CliRunner.h"
#include "common/TempHome.h"
#include "platform/os/FileSystem.h"

namespace cirrovault::test {
namespace {

class CliEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        cli.setEnv("CIRROVAULT_PASSWORD=correct horse");
        FileSystem::createDirectories(home.file("scratch"));
        FileSystem::createDirectories(home.file("Documents/letters"));
        write("Documents/a.txt", "first text of a\n");
        write("Documents/letters/b.txt", std::string(200000, 'b'));
    }

    void write(const std::string& relative, const std::string& content) {
        ASSERT_TRUE(FileSystem::writeFileAtomically(home.file(relative), content));
    }
    std::string read(const std::string& relative) { return FileSystem::readFile(home.file(relative)).value_or("<none>"); }

    CliRunner::Result run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--user", "alice"});
        return cli.run(args);
    }

    // The task's files as the store keeps them, by path below the store folder.
    std::vector<std::string> storeFiles() {
        std::vector<std::string> found;
        walk(home.dataHome() + "/cirrovault/store", found);
        return found;
    }
    void walk(const std::string& folder, std::vector<std::string>& found) {
        for (const auto& name : FileSystem::listDirectory(folder).value_or(std::vector<std::string>{})) {
            std::string path = folder + "/" + name;
            if (FileSystem::isDirectory(path))
                walk(path, found);
            else if (path.find("/files/") != std::string::npos)
                found.push_back(path + "=" + std::to_string(FileSystem::status(path)->size));
        }
    }

    TempHome home;
    CliRunner cli{home.file("scratch")};
};

// The whole life of a task, as a user types it.
TEST_F(CliEndToEnd, TaskLifeFromLogonToDelete) {
    auto logon = run({"logon"});
    ASSERT_EQ(logon.code, 0) << logon.err;
    // Kept for later commands, readable by the owner only, and never printed.
    auto kept = FileSystem::status(home.configHome() + "/cirrovault/passwords.plist");
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->mode & 0777, 0600u);
    EXPECT_EQ(logon.out.find("correct horse"), std::string::npos);

    auto made = run({"--json", "task", "new", "Docs", "--source", home.file("Documents"),
                     "--exclude-ext", "*.tmp"});
    ASSERT_EQ(made.code, 0) << made.err;
    EXPECT_NE(made.out.find("\"firstRun\":\"succeeded\""), std::string::npos) << made.out;
    EXPECT_NE(made.out.find("\"filesSent\":2"), std::string::npos) << made.out;

    write("Documents/a.txt", "second text of a, longer\n");
    write("Documents/skip.tmp", "left out");
    auto again = run({"backup", "Docs"});
    ASSERT_EQ(again.code, 0) << again.err;
    EXPECT_NE(again.out.find("1 new or changed files"), std::string::npos) << again.out;

    auto versions = run({"--json", "versions", "Docs", home.file("Documents/a.txt")});
    ASSERT_EQ(versions.code, 0) << versions.err;
    EXPECT_NE(versions.out.find("\"version\":0"), std::string::npos) << versions.out;
    EXPECT_NE(versions.out.find("\"size\":16"), std::string::npos) << versions.out;

    auto restored = run({"restore", "Docs", "--to", home.file("restored")});
    ASSERT_EQ(restored.code, 0) << restored.err;
    EXPECT_EQ(read("restored/Documents/a.txt"), "second text of a, longer\n");
    EXPECT_EQ(read("restored/Documents/letters/b.txt"), std::string(200000, 'b'));
    EXPECT_FALSE(FileSystem::exists(home.file("restored/Documents/skip.tmp")));

    auto older = run({"restore", "Docs", "Documents/a.txt", "--version", "0", "--to", home.file("older")});
    ASSERT_EQ(older.code, 0) << older.err;
    EXPECT_EQ(read("older/Documents/a.txt"), "first text of a\n");

    // An existing file is kept unless asked, and the command says so.
    write("restored/Documents/a.txt", "mine");
    auto refused = run({"restore", "Docs", "Documents/a.txt", "--to", home.file("restored")});
    EXPECT_EQ(refused.code, 1);
    EXPECT_NE(refused.out.find("--overwrite"), std::string::npos) << refused.out;
    EXPECT_EQ(read("restored/Documents/a.txt"), "mine");
    ASSERT_EQ(run({"restore", "Docs", "Documents/a.txt", "--to", home.file("restored"), "--overwrite"}).code, 0);
    EXPECT_EQ(read("restored/Documents/a.txt"), "second text of a, longer\n");

    auto log = run({"log"});
    ASSERT_EQ(log.code, 0) << log.err;
    size_t first = log.out.find("Docs: Backup started");
    EXPECT_NE(first, std::string::npos) << log.out;
    EXPECT_NE(log.out.find("Docs: Backup started", first + 1), std::string::npos) << log.out;

    auto removed = run({"task", "delete", "Docs"});
    ASSERT_EQ(removed.code, 0) << removed.err;
    auto list = run({"--json", "task", "list"});
    EXPECT_NE(list.out.find("\"tasks\":[]"), std::string::npos) << list.out;
    EXPECT_TRUE(storeFiles().empty());
}

// A second run for the same folder reuses its task; a scheduled task is not run at once.
// An encrypted task: an older version still opens after its move into the history, and a
// store that swaps two stored files, or puts the old copy back under the new listing, gets
// a refusal that names the file, and nothing is restored in its place.
TEST_F(CliEndToEnd, EncryptedFilesOpenOnlyUnderTheirOwnNameAndTime) {
    cli.setEnv("CIRROVAULT_PASSPHRASE=secret words");
    ASSERT_EQ(run({"logon"}).code, 0);
    write("Documents/c.txt", "text of c\n");
    ASSERT_TRUE(FileSystem::setModifyTime(home.file("Documents/a.txt"), Date(1'600'000'000)));
    auto made = run({"task", "new", "Safe", "--source", home.file("Documents"), "--encrypt"});
    ASSERT_EQ(made.code, 0) << made.err;
    auto stored = [&](const std::string& name) {
        for (const auto& entry : storeFiles()) {
            std::string path = entry.substr(0, entry.rfind('='));
            if (path.ends_with("/Documents/" + name) && path.find("/History/") == std::string::npos)
                return path;
        }
        ADD_FAILURE() << name << " is not in the store";
        return std::string();
    };
    const std::string firstA = *FileSystem::readFile(stored("a.txt"));
    write("Documents/a.txt", "second text of a, longer\n");
    ASSERT_TRUE(FileSystem::setModifyTime(home.file("Documents/a.txt"), Date(1'700'000'000)));
    ASSERT_EQ(run({"backup", "Safe"}).code, 0);
    auto older = run({"restore", "Safe", "Documents/a.txt", "--version", "0", "--to", home.file("older")});
    ASSERT_EQ(older.code, 0) << older.out << older.err;
    EXPECT_EQ(read("older/Documents/a.txt"), "first text of a\n");

    // Puts other bytes under a's name, keeping the time the store lists for a.
    auto replaceA = [&](const std::string& bytes) {
        std::string a = stored("a.txt");
        Date listed = FileSystem::status(a)->modifyTime;
        ASSERT_TRUE(FileSystem::writeFileAtomically(a, bytes));
        ASSERT_TRUE(FileSystem::setModifyTime(a, listed));
    };
    const std::string secondA = *FileSystem::readFile(stored("a.txt"));
    for (const std::string& planted : {*FileSystem::readFile(stored("c.txt")), firstA}) {
        replaceA(planted);
        auto refused = run({"restore", "Safe", "Documents/a.txt", "--to", home.file("refused")});
        EXPECT_EQ(refused.code, 1);
        EXPECT_NE((refused.out + refused.err).find(home.file("refused/Documents/a.txt")), std::string::npos)
            << refused.out << refused.err;
        EXPECT_FALSE(FileSystem::exists(home.file("refused/Documents/a.txt")));
    }
    replaceA(secondA);
    ASSERT_EQ(run({"restore", "Safe", "Documents/a.txt", "--to", home.file("back")}).code, 0);
    EXPECT_EQ(read("back/Documents/a.txt"), "second text of a, longer\n");
}

TEST_F(CliEndToEnd, QuickFolderBackupReusesItsTaskAndScheduledTaskWaits) {
    auto first = run({"backup", home.file("Documents")});
    ASSERT_EQ(first.code, 0) << first.err;
    EXPECT_NE(first.out.find("Making the task \"Documents\""), std::string::npos) << first.out;
    auto second = run({"backup", home.file("Documents") + "/"});
    ASSERT_EQ(second.code, 0) << second.err;
    EXPECT_EQ(second.out.find("Making the task"), std::string::npos) << second.out;
    EXPECT_NE(second.out.find("0 new or changed files"), std::string::npos) << second.out;

    auto weekly = run({"--json", "task", "new", "Weekly", "--source", home.file("Documents/letters"), "--schedule",
                       "weekly", "--weekday", "sat", "--time", "23:30"});
    ASSERT_EQ(weekly.code, 0) << weekly.err;
    EXPECT_EQ(weekly.out.find("firstRun"), std::string::npos) << weekly.out;
    auto shown = run({"--json", "task", "show", "Weekly"});
    EXPECT_NE(shown.out.find("weekly on Saturday at 23:30"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("\"lastBackup\":null"), std::string::npos) << shown.out;
}

// Every kind of bad input: one message, a non-zero code, and nothing lost.
TEST_F(CliEndToEnd, BadInputIsRefusedAndNothingIsLost) {
    ASSERT_EQ(run({"task", "new", "Docs", "--source", home.file("Documents")}).code, 0);
    auto before = storeFiles();
    ASSERT_EQ(before.size(), 2u);

    struct Case {
        std::vector<std::string> args;
        int code;
        std::string says;
    };
    std::vector<Case> cases = {
        {{"backup", "Nope"}, 2, "no task named \"Nope\""},
        {{"restore", "Nope", "--to", home.file("x")}, 2, "no task named"},
        {{"task", "new", "X", "--source", home.file("missing")}, 2, "is not a folder"},
        {{"backup", home.file("missing") }, 2, "is not a folder"},
        {{"task", "new", "X", "--source", home.file("Documents"), "--schedule", "dates", "--from", "2025-02-30",
          "--until", "2025-03-02"}, 2, "bad date \"2025-02-30\""},
        {{"task", "new", "X", "--source", home.file("Documents"), "--schedule", "dates", "--from", "2025-03-02",
          "--until", "2025-03-01"}, 2, "ends"},
        {{"task", "new", "X", "--source", home.file("Documents"), "--time", "25:00"}, 2, "bad time"},
        {{"task", "new", "Docs", "--source", home.file("Documents")}, 2, "already exists"},
        {{"restore", "Docs", "Documents/none.txt", "--to", home.file("x")}, 2, "is not backed up"},
        {{"versions", "Docs", "Documents/a.txt", "--bogus"}, 2, ""},
        {{"options", "Minutes=soon"}, 2, "number of minutes"},
    };
    for (const auto& c : cases) {
        auto r = run(c.args);
        EXPECT_EQ(r.code, c.code) << c.args[0] << " " << c.args[1] << ": " << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty() || r.code == 2) << r.out;
    }

    cli.setEnv("CIRROVAULT_PASSWORD=wrong");
    auto wrong = run({"backup", "Docs"});
    EXPECT_EQ(wrong.code, 3);
    EXPECT_NE(wrong.err.find("refused"), std::string::npos) << wrong.err;
    cli.setEnv("CIRROVAULT_PASSWORD=correct horse");

    // A damaged options file is reported and left exactly as it was.
    auto options = run({"--json", "options"});
    ASSERT_EQ(options.code, 0) << options.err;
    auto fileAt = options.out.find("\"file\":\"") + 8;
    std::string file = options.out.substr(fileAt, options.out.find('"', fileAt) - fileAt);
    ASSERT_TRUE(FileSystem::writeFileAtomically(file, "<plist><dict><key>Min"));
    auto damaged = run({"options", "ReportWhenError=yes"});
    EXPECT_EQ(damaged.code, 6);
    EXPECT_NE(damaged.err.find("cannot be read"), std::string::npos) << damaged.err;
    EXPECT_EQ(FileSystem::readFile(file).value_or(""), "<plist><dict><key>Min");

    EXPECT_EQ(storeFiles(), before);
    auto list = run({"--json", "task", "list"});
    EXPECT_NE(list.out.find("\"name\":\"Docs\""), std::string::npos) << list.out;
}

// Changes to a task reach the service (a fresh process sees them) and old versions can
// be deleted one at a time.
TEST_F(CliEndToEnd, EditedTaskAndDeletedVersionsStaySo) {
    ASSERT_EQ(run({"task", "new", "Docs", "--source", home.file("Documents")}).code, 0);
    write("Documents/a.txt", "second\n");
    ASSERT_EQ(run({"backup", "Docs"}).code, 0);
    write("Documents/a.txt", "third\n");
    // Changes are told by the modification time in whole seconds: make this one later.
    FileSystem::setModifyTime(home.file("Documents/a.txt"), Date::now().addingTimeInterval(120));
    ASSERT_EQ(run({"backup", "Docs"}).code, 0);

    auto edited = run({"task", "edit", "Docs", "--rename", "Papers", "--schedule", "daily", "--time", "03:15",
                       "--exclude-folder", "letters", "--description", "my papers"});
    ASSERT_EQ(edited.code, 0) << edited.err;
    auto shown = run({"--json", "task", "show", "Papers"});
    ASSERT_EQ(shown.code, 0) << shown.err;
    EXPECT_NE(shown.out.find("\"scheduleText\":\"daily at 03:15\""), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("\"excludeFolders\":[\"letters\"]"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("\"description\":\"my papers\""), std::string::npos) << shown.out;
    EXPECT_EQ(run({"task", "show", "Docs"}).code, 2);
    auto lastSource = run({"task", "edit", "Papers", "--remove-source", home.file("Documents")});
    EXPECT_EQ(lastSource.code, 2);
    EXPECT_NE(lastSource.err.find("at least one source"), std::string::npos) << lastSource.err;

    auto before = run({"--json", "versions", "Papers", "Documents/a.txt"});
    EXPECT_NE(before.out.find("\"version\":0"), std::string::npos) << before.out;
    EXPECT_NE(before.out.find("\"version\":1"), std::string::npos) << before.out;
    ASSERT_EQ(run({"versions", "delete", "Papers", "Documents/a.txt", "--version", "0"}).code, 0);
    EXPECT_EQ(run({"versions", "delete", "Papers", "Documents/a.txt", "--version", "0"}).code, 2);
    auto after = run({"--json", "versions", "Papers", "Documents/a.txt"});
    EXPECT_EQ(after.out.find("\"version\":0"), std::string::npos) << after.out;
    ASSERT_EQ(run({"restore", "Papers", "Documents/a.txt", "--version", "1", "--to", home.file("v1")}).code, 0);
    EXPECT_EQ(read("v1/Documents/a.txt"), "second\n");
}

// A task of another computer is shown as such, is not run here, and runs from here once
// it has been moved to a local folder.
TEST_F(CliEndToEnd, TaskOfAnotherComputerIsMovedHere) {
    ASSERT_EQ(run({"task", "new", "Docs", "--source", home.file("Documents")}).code, 0);
    // This computer gets another identity: the task now belongs to "another" computer.
    std::string identity = home.dataHome() + "/Cirrovault/Cirrovault Online Backup/PCInfo.dat";
    std::string plist = FileSystem::readFile(identity).value_or("");
    auto at = plist.find("<string>", plist.find("PC ID"));
    ASSERT_NE(at, std::string::npos) << plist;
    plist.replace(at + 8, plist.find("</string>", at) - at - 8, "4242");
    ASSERT_TRUE(FileSystem::writeFileAtomically(identity, plist));

    auto refused = run({"backup", "Docs"});
    EXPECT_EQ(refused.code, 2);
    EXPECT_NE(refused.err.find("task migrate"), std::string::npos) << refused.err;
    FileSystem::createDirectories(home.file("Moved/Documents"));
    write("Moved/Documents/new.txt", "here now");
    auto moved = run({"task", "migrate", "Docs", "--to", home.file("Moved")});
    ASSERT_EQ(moved.code, 0) << moved.err;
    EXPECT_NE(moved.out.find(home.file("Moved/Documents")), std::string::npos) << moved.out;
    ASSERT_EQ(run({"backup", "Docs"}).code, 0);
    ASSERT_EQ(run({"restore", "Docs", "Documents/new.txt", "--to", home.file("back")}).code, 0);
    EXPECT_EQ(read("back/Documents/new.txt"), "here now");
}

// Ctrl-C stops a run through its progress object; the next run goes on and the files
// come back byte for byte.
TEST_F(CliEndToEnd, InterruptedBackupEndsCleanlyAndTheNextRunCompletesIt) {
    FileSystem::createDirectories(home.file("Big"));
    uint32_t seed = 12345;
    // Few large files: the first "sending" line comes with a file that takes far longer
    // to store than Ctrl-C takes to reach the run.
    std::string block(32 << 20, '\0');
    for (auto& c : block)
        c = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 24);
    for (int i = 0; i < 4; ++i)
        write("Big/part" + std::to_string(i) + ".bin", "part " + std::to_string(i) + block);
    pid_t backup = cli.start({"--user", "alice", "backup", "--list", home.file("Big")});
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (cli.outputSoFar().find("sending") == std::string::npos && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    kill(backup, SIGINT);
    auto cancelled = cli.finish(backup);
    if (cancelled.code == 0)
        GTEST_SKIP() << "the backup ended before Ctrl-C reached it";
    EXPECT_EQ(cancelled.code, 5) << cancelled.err;
    EXPECT_NE(cancelled.err.find("was cancelled"), std::string::npos) << cancelled.err;

    auto resumed = run({"backup", "Big"});
    ASSERT_EQ(resumed.code, 0) << resumed.err;
    ASSERT_EQ(run({"restore", "Big", "--to", home.file("back")}).code, 0);
    for (int i = 0; i < 4; ++i) {
        std::string name = "/part" + std::to_string(i) + ".bin";
        EXPECT_TRUE(read("back/Big" + name) == read("Big" + name)) << name;
    }
}

// One engine per account: a second one says who runs and what to do; SIGTERM stops the
// daemon in order and frees the account.
TEST_F(CliEndToEnd, DaemonHoldsTheAccountUntilSigterm) {
    ASSERT_EQ(run({"logon"}).code, 0);
    pid_t daemon = cli.start({"--user", "alice", "daemon", "--now"});
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (cli.outputSoFar().find("scheduler running") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_NE(cli.outputSoFar().find("scheduler running"), std::string::npos);

    CliRunner other(home.file("scratch/other"));
    FileSystem::createDirectories(home.file("scratch/other"));
    auto busy = other.run({"--user", "alice", "backup", home.file("Documents")});
    EXPECT_EQ(busy.code, 4);
    EXPECT_NE(busy.err.find(std::to_string(daemon)), std::string::npos) << busy.err;
    auto status = other.run({"--user", "alice", "--json", "status"});
    EXPECT_NE(status.out.find("\"enginePid\":" + std::to_string(daemon)), std::string::npos) << status.out;

    kill(daemon, SIGTERM);
    auto stopped = cli.finish(daemon);
    EXPECT_EQ(stopped.code, 0) << stopped.err;
    EXPECT_NE(stopped.out.find("stopped"), std::string::npos) << stopped.out;
    EXPECT_EQ(other.run({"--user", "alice", "backup", home.file("Documents")}).code, 0);
}

} // namespace
} // namespace cirrovault::test
