#include "codec/atomic_file.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vex::codec {
namespace {

// The process umask, read without changing it where the system allows (another
// thread calling open() meanwhile must not see a umask of 0).
mode_t current_umask() {
    if (FILE* status = std::fopen("/proc/self/status", "re")) {
        char line[256];
        unsigned mask = 0;
        bool found = false;
        while (!found && std::fgets(line, sizeof line, status))
            found = std::sscanf(line, "Umask: %o", &mask) == 1;
        std::fclose(status);
        if (found) return static_cast<mode_t>(mask);
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string base_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Follows symbolic links at the end of `path` (not in its folders, which the
// rename goes through anyway), so the file a link names is the one replaced.
int resolve_links(std::string& path) {
    for (int depth = 0; depth < 40; ++depth) {
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return 0;
        std::string target(PATH_MAX, '\0');
        const ssize_t n = ::readlink(path.c_str(), &target[0], target.size());
        if (n < 0) return errno;
        target.resize(static_cast<std::size_t>(n));
        path = target[0] == '/' ? target : folder_of(path) + "/" + target;
    }
    return ELOOP;
}

// The mode for the new content, refusing what open(path, "w") would refuse.
int target_mode(const std::string& path, mode_t& mode) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        if (errno != ENOENT) return errno;
        mode = 0666 & ~current_umask();
        return 0;
    }
    if (S_ISDIR(st.st_mode)) return EISDIR;
    if (::access(path.c_str(), W_OK) != 0) return errno;
    mode = st.st_mode & 07777;
    return 0;
}

int write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return 0;
}

// Fills the temporary file and closes it; the content is on disk when it returns 0.
int fill_and_close(int fd, std::string_view data, mode_t mode) {
    int err = write_all(fd, data);
    if (err == 0 && ::fchmod(fd, mode) != 0) err = errno;
    if (err == 0 && ::fsync(fd) != 0) err = errno;
    if (::close(fd) != 0 && err == 0) err = errno;
    return err;
}

// Makes the rename itself durable; a failure here loses nothing already written.
void sync_folder(const std::string& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

int write_file_atomic(const std::string& requested, std::string_view data) {
    std::string path = requested;
    int err = resolve_links(path);
    mode_t mode = 0;
    if (err == 0) err = target_mode(path, mode);
    if (err != 0) return err;

    const std::string folder = folder_of(path);
    // A hidden name, so that listings by pattern ("*.csv") never pick it up; the
    // base is shortened so the name stays within the file-name length limit.
    std::string temp = folder + "/." + base_of(path).substr(0, 200) + ".XXXXXX";
    const int fd = ::mkostemp(&temp[0], O_CLOEXEC);
    if (fd < 0) return errno;
    err = fill_and_close(fd, data, mode);
    if (err == 0 && ::rename(temp.c_str(), path.c_str()) != 0) err = errno;
    if (err != 0) {
        ::unlink(temp.c_str());
        return err;
    }
    sync_folder(folder);
    return 0;
}

}  // namespace vex::codec
