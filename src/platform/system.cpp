#include "platform/platform.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace orv::platform {

namespace fs = std::filesystem;

namespace {
fs::path envFolder(const char* name, const fs::path& fallback) {
    const char* v = std::getenv(name);
    // The XDG rules say a relative value is to be ignored.
    if (v && *v && fs::path(v).is_absolute()) return fs::path(v);
    return fallback;
}
} // namespace

fs::path homeFolder() {
    const char* h = std::getenv("HOME");
    return (h && *h) ? fs::path(h) : fs::temp_directory_path();
}

fs::path configFolder() {
    return envFolder("XDG_CONFIG_HOME", homeFolder() / ".config");
}
fs::path localDataFolder() {
    return envFolder("XDG_DATA_HOME", homeFolder() / ".local" / "share");
}
fs::path runtimeFolder() {
    return envFolder("XDG_RUNTIME_DIR", fs::temp_directory_path());
}

fs::path executableFolder() {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::current_path() : exe.parent_path();
}

bool InstanceLock::acquire(std::string_view name) {
    release();
    const fs::path file = runtimeFolder() / (std::string(name) + "-" + std::to_string(::getuid()) + ".lock");
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return false;
    }
    fd_ = fd;
    return true;
}

void InstanceLock::release() {
    if (fd_ >= 0) ::close(fd_); // closing drops the flock
    fd_ = -1;
}

bool openInShell(const fs::path& path) {
    const std::string arg = path.string();
    char prog[] = "xdg-open";
    char* argv[] = {prog, const_cast<char*>(arg.c_str()), nullptr};
    pid_t pid = 0;
    if (posix_spawnp(&pid, prog, nullptr, nullptr, argv, environ) != 0) return false;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace orv::platform
