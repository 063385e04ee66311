#pragma once

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "platform/framework/LoadString.h"
#include "platform/os/FileSystem.h"

namespace cirrovault::test {

// A fresh temporary folder that stands in for the user's home: HOME, XDG_DATA_HOME,
// XDG_CONFIG_HOME and XDG_RUNTIME_DIR point into it for the life of the object, so no
// test touches the real user's files.
class TempHome {
public:
    TempHome() {
        char pattern[] = "/tmp/cirrovault-test-XXXXXX";
        const char* made = mkdtemp(pattern);
        EXPECT_NE(made, nullptr);
        root_ = made ? made : "/tmp";
        saveAndSet("HOME", root_);
        saveAndSet("XDG_DATA_HOME", root_ + "/data");
        saveAndSet("XDG_CONFIG_HOME", root_ + "/config");
        // Sockets too: a test's daemon never meets the user's own.
        saveAndSet("XDG_RUNTIME_DIR", root_ + "/run");
        // Secrets go to the owner-only file, whatever keyring the machine running the tests has.
        saveAndSet("CIRROVAULT_KEYRING", "off");
        // Reports never reach the desktop of whoever runs the tests: the bus named is not there.
        saveAndSet("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + root_ + "/no-session-bus");
        FileSystem::createDirectories(root_ + "/data");
        FileSystem::createDirectories(root_ + "/config");
        FileSystem::createDirectories(root_ + "/run");
        LoadString::Reload();
    }
    ~TempHome() {
        for (auto& [name, value] : saved_) {
            if (value.second)
                setenv(name.c_str(), value.first.c_str(), 1);
            else
                unsetenv(name.c_str());
        }
        FileSystem::removeAll(root_);
        LoadString::Reload();
    }
    TempHome(const TempHome&) = delete;
    TempHome& operator=(const TempHome&) = delete;

    const std::string& path() const { return root_; }
    std::string dataHome() const { return root_ + "/data"; }
    std::string configHome() const { return root_ + "/config"; }
    // A path under the temporary folder, for the test's own files.
    std::string file(const std::string& relative) const { return root_ + "/" + relative; }

private:
    void saveAndSet(const std::string& name, const std::string& value) {
        const char* old = std::getenv(name.c_str());
        saved_.push_back({name, {old ? old : "", old != nullptr}});
        setenv(name.c_str(), value.c_str(), 1);
    }

    std::string root_;
    std::vector<std::pair<std::string, std::pair<std::string, bool>>> saved_;
};

} // namespace cirrovault::test
