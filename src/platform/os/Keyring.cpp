#include "platform/os/Keyring.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

#ifdef CV_HAVE_LIBSECRET
#include <libsecret/secret.h>
#endif

namespace cirrovault {

namespace {

// Set once a call timed out or the bus could not be reached: no later call waits again.
std::atomic<bool> gGivenUp{false};

bool switchedOff() {
    const char* setting = std::getenv("CIRROVAULT_KEYRING");
    return setting && std::strcmp(setting, "off") == 0;
}

bool sessionBusNamed() {
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address)
        return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime && *runtime && FileSystem::exists(std::string(runtime) + "/bus");
}

#ifdef CV_HAVE_LIBSECRET

// Long enough for a keyring daemon to be started on demand, short enough for a command.
constexpr std::chrono::seconds CallLimit{5};

const SecretSchema* schema() {
    static const SecretSchema kSchema = {
        "org.cirrovault.Secret",
        SECRET_SCHEMA_NONE,
        {{"kind", SECRET_SCHEMA_ATTRIBUTE_STRING},
         {"key", SECRET_SCHEMA_ATTRIBUTE_STRING},
         {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
        0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    return &kSchema;
}

// Runs call(cancellable, &error); a watchdog cancels it when it takes longer than the
// limit. A timeout or an unreachable service gives the keyring up for the process.
template <typename Call>
auto bounded(const char* what, Call&& call, bool* failed = nullptr) {
    GCancellable* cancellable = g_cancellable_new();
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock lock(mutex);
        if (!finished.wait_for(lock, CallLimit, [&] { return done; }))
            g_cancellable_cancel(cancellable);
    });
    GError* error = nullptr;
    auto result = call(cancellable, &error);
    {
        std::lock_guard lock(mutex);
        done = true;
    }
    finished.notify_one();
    watchdog.join();
    if (failed)
        *failed = error != nullptr;
    if (error) {
        bool unreachable = g_cancellable_is_cancelled(cancellable) ||
                           error->domain == G_IO_ERROR || error->domain == G_DBUS_ERROR;
        SystemLog::write(std::string("Error: the desktop keyring could not ") + what + ": " +
                         error->message);
        if (unreachable)
            gGivenUp = true;
        g_error_free(error);
    }
    g_object_unref(cancellable);
    return result;
}

// The session bus, asked once. It must not end this process when the bus goes away
// (the library's default for the shared connection).
bool connectBus() {
    static std::once_flag once;
    static bool connected = false;
    std::call_once(once, [] {
        GError* error = nullptr;
        GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
        if (!bus) {
            SystemLog::write(std::string("Keyring: no session bus: ") + (error ? error->message : ""));
            if (error)
                g_error_free(error);
            return;
        }
        g_dbus_connection_set_exit_on_close(bus, FALSE);
        g_object_unref(bus);
        connected = true;
    });
    return connected;
}

#endif

} // namespace

bool Keyring::reachable() {
#ifdef CV_HAVE_LIBSECRET
    if (gGivenUp || switchedOff() || !sessionBusNamed())
        return false;
    if (!connectBus()) {
        gGivenUp = true;
        return false;
    }
    return true;
#else
    (void)gGivenUp;
    (void)switchedOff;
    (void)sessionBusNamed;
    return false;
#endif
}

bool Keyring::store(const std::string& kind, const std::string& key, const std::string& label,
                    const std::string& secret) {
#ifdef CV_HAVE_LIBSECRET
    if (!reachable())
        return false;
    return bounded("keep a secret", [&](GCancellable* cancellable, GError** error) {
        return secret_password_store_sync(schema(), SECRET_COLLECTION_DEFAULT, label.c_str(),
                                          secret.c_str(), cancellable, error, "kind", kind.c_str(),
                                          "key", key.c_str(), nullptr) != FALSE;
    });
#else
    (void)kind, (void)key, (void)label, (void)secret;
    return false;
#endif
}

std::optional<std::string> Keyring::lookup(const std::string& kind, const std::string& key) {
#ifdef CV_HAVE_LIBSECRET
    if (!reachable())
        return std::nullopt;
    gchar* found = bounded("read a secret", [&](GCancellable* cancellable, GError** error) {
        return secret_password_lookup_sync(schema(), cancellable, error, "kind", kind.c_str(), "key",
                                           key.c_str(), nullptr);
    });
    if (!found)
        return std::nullopt;
    std::string secret(found);
    secret_password_free(found); // clears the library's copy
    return secret;
#else
    (void)kind, (void)key;
    return std::nullopt;
#endif
}

bool Keyring::remove(const std::string& kind, const std::string& key) {
#ifdef CV_HAVE_LIBSECRET
    if (!reachable())
        return false;
    bool failed = false;
    bounded(
        "remove a secret",
        [&](GCancellable* cancellable, GError** error) {
            return secret_password_clear_sync(schema(), cancellable, error, "kind", kind.c_str(),
                                              "key", key.c_str(), nullptr) != FALSE;
        },
        &failed);
    return !failed; // "nothing to remove" is not a failure
#else
    (void)kind, (void)key;
    return false;
#endif
}

} // namespace cirrovault
