#pragma once

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/LoopbackPort.h"
#include "platform/os/FileSystem.h"
#include "platform/store/webdav/WebDavCapabilityProbe.h"

extern "C" char** environ;

namespace cirrovault::test {

// A real WebDAV server on a free port of 127.0.0.1, configured in a folder of its own and
// stopped with the object: Apache with mod_dav, lighttpd with mod_webdav (with or without
// its property database), `rclone serve webdav`, or SabreDAV under PHP's built-in server.
// The server's root is the folder "data". With FolderPerUser each user gets a folder
// "data/<name>", reached by accountUrl() ("{user}" in the path); AtRoot, the account is
// the server's root itself, which every user of the server then shares. A missing server
// program fails the test with a message saying what to install: CI has them all.
class WebDavTestServer {
public:
    enum class Kind { Apache, Lighttpd, LighttpdWithoutProperties, Rclone, Sabre };
    enum class Account { FolderPerUser, AtRoot };

    WebDavTestServer(Kind kind, std::string folder, std::map<std::string, std::string> users,
                     Account account = Account::FolderPerUser)
        : kind_(kind), account_(account), folder_(std::move(folder)) {
        const Program program = programOf(kind);
        lighttpd_ = kind == Kind::Lighttpd || kind == Kind::LighttpdWithoutProperties;
        binary_ = findProgram(program.name);
        if (binary_.empty()) {
            ADD_FAILURE() << program.name << " is not installed: run scripts/install-deps.sh "
                          << "(packages " << program.packages << ")";
            return;
        }
        FileSystem::createDirectories(folder_ + "/data");
        for (const auto& [user, password] : users) {
            if (account_ == Account::FolderPerUser)
                FileSystem::createDirectories(folder_ + "/data/" + user);
            addUser(user, password);
        }
        for (int attempt = 0; attempt < 3 && pid_ <= 0; ++attempt)
            start();
        if (pid_ <= 0)
            ADD_FAILURE() << program.name << " did not start; its log:\n" << log();
    }
    ~WebDavTestServer() { stop(); }
    WebDavTestServer(const WebDavTestServer&) = delete;
    WebDavTestServer& operator=(const WebDavTestServer&) = delete;

    bool running() const { return pid_ > 0; }
    int port() const { return port_; }
    const std::string& folder() const { return folder_; }
    std::string dataFolder() const { return folder_ + "/data"; }
    // "webdav://127.0.0.1:<port>/<path>"
    std::string url(const std::string& path) const {
        return "webdav://127.0.0.1:" + std::to_string(port_) + "/" + path;
    }
    // The service URL of the users' accounts.
    std::string accountUrl() const {
        return url(account_ == Account::FolderPerUser ? "{user}/" : "");
    }
    // The requests the server has answered so far, a line each ("METHOD /path status");
    // nullopt for a server that keeps no such log (all but Apache and lighttpd here).
    std::optional<std::vector<std::string>> requests() const {
        if (kind_ != Kind::Apache && !lighttpd_)
            return std::nullopt;
        std::vector<std::string> lines;
        std::string text = FileSystem::readFile(folder_ + "/access.log").value_or("");
        for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
             start = end + 1)
            lines.push_back(text.substr(start, end - start));
        return lines;
    }

    std::string log() const {
        return FileSystem::readFile(folder_ + "/error.log").value_or("") +
               FileSystem::readFile(folder_ + "/output.log").value_or("");
    }

    void stop() {
        if (pid_ <= 0)
            return;
        ::kill(-pid_, SIGTERM);
        for (int i = 0; i < 400; ++i) { // up to two seconds, then no more patience
            if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
                ::kill(-pid_, SIGKILL); // any worker left behind
                pid_ = 0;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ::kill(-pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }

private:
    struct Program {
        const char* name;
        const char* packages;
    };
    static Program programOf(Kind kind) {
        switch (kind) {
        case Kind::Apache:
            return {"apache2", "apache2"};
        case Kind::Rclone:
            return {"rclone", "rclone"};
        case Kind::Sabre:
            return {"php", "php-cli, php-sabre-dav"};
        default:
            return {"lighttpd", "lighttpd, lighttpd-mod-webdav"};
        }
    }

    static std::string findProgram(const std::string& name) {
        for (const char* dir : {"/usr/sbin", "/usr/bin", "/usr/local/sbin", "/usr/local/bin"}) {
            std::string path = std::string(dir) + "/" + name;
            if (::access(path.c_str(), X_OK) == 0)
                return path;
        }
        return {};
    }

    void addUser(const std::string& user, const std::string& password) {
        if (lighttpd_ || kind_ == Kind::Sabre) {
            std::string users = FileSystem::readFile(folder_ + "/users").value_or("");
            FileSystem::writeFileAtomically(folder_ + "/users", users + user + ":" + password + "\n");
            return;
        }
        bool first = ::access((folder_ + "/users").c_str(), F_OK) != 0;
        std::string command = "htpasswd -b" + std::string(first ? "c" : "") + " '" + folder_ +
                              "/users' '" + user + "' '" + password + "' >/dev/null 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0) << "htpasswd (apache2-utils) failed";
    }

    std::string apacheConfig() const {
        const std::string modules = "/usr/lib/apache2/modules/";
        std::string conf = "ServerRoot " + folder_ + "\nServerName 127.0.0.1\n" +
                           "Listen 127.0.0.1:" + std::to_string(port_) + "\n" +
                           "PidFile " + folder_ + "/httpd.pid\nErrorLog " + folder_ +
                           "/error.log\nLogLevel warn\nDefaultRuntimeDir " + folder_ + "\n";
        for (const char* module :
             {"mpm_event", "authz_core", "authn_core", "authn_file", "authz_user", "auth_basic",
              "dav", "dav_fs"})
            conf += std::string("LoadModule ") + module + "_module " + modules + "mod_" + module +
                    ".so\n";
        conf += "LogFormat \"%m %U %>s\" short\nCustomLog " + folder_ + "/access.log short\n";
        conf += "DAVLockDB " + folder_ + "/DAVLock\nDocumentRoot " + folder_ +
                "/data\nKeepAliveTimeout 30\n<Directory " + folder_ +
                "/data>\n  Dav On\n  AuthType Basic\n  AuthName dav\n  AuthUserFile " + folder_ +
                "/users\n  Require valid-user\n  Options None\n  AllowOverride None\n"
                "</Directory>\n";
        return conf;
    }

    std::string lighttpdConfig() const {
        return "server.modules = (\"mod_auth\", \"mod_authn_file\", \"mod_webdav\", "
               "\"mod_accesslog\")\n"
               "accesslog.filename = \"" + folder_ + "/access.log\"\n"
               "accesslog.format = \"%m %U %>s\"\n"
               "server.document-root = \"" + folder_ + "/data\"\n"
               "server.bind = \"127.0.0.1\"\nserver.port = " + std::to_string(port_) + "\n"
               "server.errorlog = \"" + folder_ + "/error.log\"\n"
               "server.upload-dirs = (\"" + folder_ + "\")\n"
               // Tests change files behind the server's back: no remembered status.
               "server.stat-cache-engine = \"disable\"\n"
               "auth.backend = \"plain\"\nauth.backend.plain.userfile = \"" + folder_ + "/users\"\n"
               "auth.require = (\"/\" => (\"method\" => \"basic\", \"realm\" => \"dav\", "
               "\"require\" => \"valid-user\"))\n"
               "webdav.activate = \"enable\"\n" +
               (kind_ == Kind::Lighttpd
                    ? "webdav.sqlite-db-name = \"" + folder_ + "/webdav.db\"\n"
                    : std::string());
    }

    // The server's command line; configuration files are written on the way.
    std::vector<std::string> commandLine() const {
        const std::string address = "127.0.0.1:" + std::to_string(port_);
        if (lighttpd_) {
            FileSystem::writeFileAtomically(folder_ + "/lighttpd.conf", lighttpdConfig());
            return {binary_, "-D", "-f", folder_ + "/lighttpd.conf"};
        }
        switch (kind_) {
        case Kind::Rclone:
            // No directory cache: tests change files behind the server's back.
            return {binary_, "serve", "webdav", folder_ + "/data", "--addr", address,
                    "--htpasswd", folder_ + "/users", "--config", folder_ + "/rclone.conf",
                    "--dir-cache-time", "0s", "--log-file", folder_ + "/error.log"};
        case Kind::Sabre:
            return {binary_, "-d", "display_errors=0", "-d", "log_errors=1", "-d",
                    "error_log=" + folder_ + "/error.log", "-d", "include_path=/usr/share/php",
                    "-S", address,
                    std::string(CV_SOURCE_ROOT) + "/tests/common/sabredav/server.php"};
        default:
            FileSystem::writeFileAtomically(folder_ + "/httpd.conf", apacheConfig());
            return {binary_, "-f", folder_ + "/httpd.conf", "-DFOREGROUND"};
        }
    }

    void start() {
        port_ = unusedLoopbackPort();
        // The port may have served another kind of server earlier in this process.
        WebDavCapabilityProbe::forgetAll();
        const std::vector<std::string> command = commandLine();
        std::vector<std::string> environment;
        for (char** variable = environ; *variable; ++variable)
            environment.emplace_back(*variable);
        if (kind_ == Kind::Sabre) {
            FileSystem::createDirectories(folder_ + "/state");
            environment.push_back("CV_DAV_ROOT=" + folder_ + "/data");
            environment.push_back("CV_DAV_USERS=" + folder_ + "/users");
            environment.push_back("CV_DAV_STATE=" + folder_ + "/state");
            // One worker, as the built-in server runs by default: the file-system nodes
            // check and then act, so requests racing in several workers could both win.
            environment.push_back("PHP_CLI_SERVER_WORKERS=1");
        }
        std::vector<char*> argv, envp;
        for (const auto& argument : command)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        for (const auto& variable : environment)
            envp.push_back(const_cast<char*>(variable.c_str()));
        envp.push_back(nullptr);
        pid_t pid = ::fork();
        if (pid == 0) {
            ::setpgid(0, 0); // stopped as a group, with any process the server started
            int out = ::open((folder_ + "/output.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (out >= 0) {
                ::dup2(out, 1);
                ::dup2(out, 2);
            }
            ::execve(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
        if (pid < 0)
            return;
        ::setpgid(pid, pid); // as the child does: whichever runs first
        for (int i = 0; i < 2000; ++i) { // up to ten seconds
            if (acceptsOnLoopback(port_)) {
                pid_ = pid;
                return;
            }
            if (::waitpid(pid, nullptr, WNOHANG) == pid)
                return; // exited: the port was taken meanwhile, or the configuration is bad
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ::kill(-pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }

    Kind kind_;
    Account account_;
    bool lighttpd_ = false;
    std::string folder_;
    std::string binary_;
    int port_ = 0;
    pid_t pid_ = 0;
};

} // namespace cirrovault::test
