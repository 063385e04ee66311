// A home folder backed up from one computer and restored on a new one (a second, empty
// HOME on the same store) comes back as it was: dotfiles, links, modes, times and
// names the service refuses.
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "CliRunner.h"
#include "common/ScopedEnv.h"
#include "common/TempHome.h"
#include "common/WebDavTestServer.h"
#include "platform/framework/PasswordMan.h"
#include "platform/os/FileSystem.h"

namespace cirrovault::test {
namespace {

const std::string kPassPhrase = "a long pass phrase";
// 250 bytes: the stored name and its ".part" must fit the file-system name limit.
const std::string kLongName = std::string(246, 'n') + ".txt";
// Encoded, 90 colons take 270 bytes: more than any name may have. It is left out, and said.
const std::string kTooLong = std::string(90, ':');

// One computer: its HOME and XDG folders, and the command line run there.
struct Computer {
    Computer(const std::string& root, const std::string& home) : cli(root + "/scratch") {
        for (const char* folder : {"/scratch", "/data", "/config"})
            FileSystem::createDirectories(root + folder);
        FileSystem::createDirectories(home);
        cli.setEnv("HOME=" + home);
        cli.setEnv("XDG_DATA_HOME=" + root + "/data");
        cli.setEnv("XDG_CONFIG_HOME=" + root + "/config");
        cli.setEnv("CIRROVAULT_PASSWORD=correct horse");
        cli.setEnv("CIRROVAULT_PASSPHRASE=" + kPassPhrase);
        config = root + "/config";
    }
    CliRunner cli;
    std::string config;
};

// What a tree holds, item by item: type, permission bits, link target, time, bytes.
std::map<std::string, std::string> inventory(const std::string& top, const std::string& relative = "") {
    std::map<std::string, std::string> items;
    auto entries = FileSystem::listDirectoryWithStatus(top + relative);
    if (!entries)
        items[relative] = "<unreadable>";
    for (const auto& entry : entries.value_or(std::vector<FileSystem::Entry>{})) {
        std::string path = relative + "/" + entry.name, &line = items[path];
        const FileStatus status = entry.status.value_or(FileStatus{});
        char time[32], mode[8], target[512] = {};
        std::snprintf(time, sizeof time, "%.3f", status.modifyTime.timeIntervalSince1970());
        std::snprintf(mode, sizeof mode, "%04o", status.mode & 07777);
        if (status.type == FileType::Directory) {
            line = "folder"; // folders keep no mode or time of their own on the service
            items.merge(inventory(top, path));
        } else if (status.type == FileType::SymbolicLink) {
            ssize_t n = ::readlink((top + path).c_str(), target, sizeof target - 1);
            line = "link -> " + std::string(target, n < 0 ? 0 : static_cast<size_t>(n)) + " " + time;
        } else if (status.type == FileType::Other) {
            line = "special"; // never opened: a FIFO would wait for a writer
        } else {
            line = std::string("file ") + mode + " " + time + " " + FileSystem::readFile(top + path).value_or("<unreadable>");
        }
    }
    return items;
}

void write(const std::string& path, const std::string& text, mode_t mode, double time) {
    FILE* file = std::fopen(path.c_str(), "w"); // in place: a 250-byte name has no room for more
    ASSERT_NE(file, nullptr) << path;
    std::fputs(text.c_str(), file);
    std::fclose(file);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
    ASSERT_TRUE(FileSystem::setModifyTime(path, Date(time))) << path;
}

void link(const std::string& target, const std::string& path, double time) {
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path;
    struct timespec times[2] = {{static_cast<time_t>(time), 0}, {static_cast<time_t>(time), 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

class CliRestoreAnywhere : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        if (GetParam()) {
            server = std::make_unique<WebDavTestServer>(WebDavTestServer::Kind::Apache,
                                                        home.file("server"),
                                                        std::map<std::string, std::string>{{"alice", "correct horse"}});
            ASSERT_TRUE(server->running());
            service = server->url("{user}/");
        } else {
            service = "file://" + home.file("store");
        }
        // The first computer's HOME is the tree itself, so its ~/.cache is the desktop's.
        tree = home.file("first/alice");
        vault = home.file("first/vault");
        first = std::make_unique<Computer>(home.file("first"), tree);
        second = std::make_unique<Computer>(home.file("second"), home.file("second/home"));
        makeTree();
    }

    void makeTree() {
        for (const char* folder : {"/.config/app", "/.ssh", "/bin", "/Notes", "/.cache/thumbnails"})
            FileSystem::createDirectories(tree + folder);
        FileSystem::createDirectories(vault);
        double t = 1'600'000'000;
        write(tree + "/.bashrc", "export EDITOR=vi\n", 0644, t + 1);
        write(tree + "/.config/app/settings.ini", "[a]\nb=c\n", 0644, t + 2);
        write(tree + "/.ssh/id_ed25519", "PRIVATE KEY\n", 0600, t + 3);
        write(tree + "/bin/tool", "#!/bin/sh\necho hi\n", 0755, t + 4);
        write(tree + "/Notes/Notes 10:30.txt", "meeting\n", 0640, t + 5);
        write(tree + "/Notes/what?.txt", "?\n", 0644, t + 6);
        write(tree + "/Notes/star*.txt", "*\n", 0644, t + 7);
        write(tree + "/Notes/back\\slash %3A.txt", "\\\n", 0644, t + 8);
        write(tree + "/Notes/" + kLongName, "long\n", 0644, t + 9);
        write(tree + "/Notes/" + kTooLong, "cannot go\n", 0644, t + 10);
        write(tree + "/.cache/thumbnails/x.png", "disposable", 0644, t + 11);
        link(".bashrc", tree + "/link-to-file", t + 12);
        link("bin", tree + "/link-to-folder", t + 13);
        link("/nowhere/at/all", tree + "/dangling", t + 14);
        ASSERT_EQ(::mkfifo((tree + "/pipe").c_str(), 0600), 0);
        write(vault + "/diary 10:30.txt", "dear diary\n", 0600, t + 15);
        link("diary 10:30.txt", vault + "/latest", t + 16);
    }

    CliRunner::Result run(Computer& computer, std::vector<std::string> args) {
        args.insert(args.begin(), {"--user", "alice", "--service", service});
        return computer.cli.run(args);
    }
    CliRunner::Result ok(Computer& computer, std::vector<std::string> args) {
        auto result = run(computer, std::move(args));
        EXPECT_EQ(result.code, 0) << result.out << result.err;
        return result;
    }

    TempHome home;
    std::unique_ptr<WebDavTestServer> server;
    std::string service, tree, vault;
    std::unique_ptr<Computer> first, second;
};

TEST_P(CliRestoreAnywhere, HomeComesBackAsItWasOnANewComputer) {
    // Nothing is left out silently: the one name the service cannot take is named.
    has(ok(*first, {"task", "new", "Home", "--source", tree}).out, {"left out: " + tree + "/Notes/" + kTooLong});
    has(run(*first, {"log"}).out, {kTooLong});
    ok(*first, {"task", "new", "Secret", "--source", vault, "--encrypt"});
    // A changed file keeps its older version under its encoded name.
    write(tree + "/Notes/Notes 10:30.txt", "meeting moved\n", 0640, 1'600'000'100);
    ok(*first, {"backup", "Home"});
    has(run(*first, {"task", "show", "Home"}).out, {tree + "/.cache"});

    // The new computer knows nothing but the account. Its pass phrase is given through
    // the kept secrets.
    has(ok(*second, {"--json", "versions", "Home", "alice/Notes/Notes 10:30.txt"}).out, {"\"version\":0"});
    {
        auto shown = nlohmann::json::parse(run(*second, {"--json", "task", "show", "Secret"}).out, nullptr, false);
        ScopedEnv config("XDG_CONFIG_HOME", second->config);
        EXPECT_TRUE(PasswordMan().SetPassword(shown["task"].value("serverFolder", ""), true, kPassPhrase));
    }
    std::string into = home.file("second/home/restored");
    ok(*second, {"restore", "Home", "--to", into});
    ok(*second, {"restore", "Secret", "--to", into});

    auto before = inventory(tree);
    auto after = inventory(into + "/alice");
    // What the desktop discards, FIFOs and the name no service can hold stay behind.
    for (const std::string& gone : std::vector<std::string>{"/.cache", "/.cache/thumbnails",
                                                            "/.cache/thumbnails/x.png", "/pipe",
                                                            "/Notes/" + kTooLong}) {
        EXPECT_EQ(after.count(gone), 0u) << gone;
        before.erase(gone);
    }
    EXPECT_EQ(after, before);
    EXPECT_EQ(inventory(into + "/vault"), inventory(vault));
    EXPECT_EQ(after["/.ssh/id_ed25519"].substr(0, 9), "file 0600");
}

INSTANTIATE_TEST_SUITE_P(Stores, CliRestoreAnywhere, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Apache" : "Local"; });

} // namespace
} // namespace cirrovault::test
