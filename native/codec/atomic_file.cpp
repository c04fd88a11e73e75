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

// Makes the rename itself durable; a failure here loses nothing already written.
void sync_folder(const std::string& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

AtomicFile::~AtomicFile() { discard(); }

void AtomicFile::discard() {
    if (fd_ >= 0) ::close(fd_);
    if (!temp_.empty()) ::unlink(temp_.c_str());
    fd_ = -1;
    temp_.clear();
}

int AtomicFile::open(const std::string& requested) {
    discard();
    target_ = requested;
    int err = resolve_links(target_);
    if (err == 0) err = target_mode(target_, mode_);
    if (err != 0) return err;
    // A hidden name, so that listings by pattern ("*.csv") never pick it up; the
    // base is shortened so the name stays within the file-name length limit.
    std::string temp = folder_of(target_) + "/." + base_of(target_).substr(0, 200) + ".XXXXXX";
    fd_ = ::mkostemp(&temp[0], O_CLOEXEC);
    if (fd_ < 0) return errno;
    temp_ = std::move(temp);
    return 0;
}

int AtomicFile::write(std::string_view data) {
    if (fd_ < 0) return EBADF;
    while (!data.empty()) {
        const ssize_t n = ::write(fd_, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return 0;
}

int AtomicFile::commit() {
    if (fd_ < 0) return EBADF;
    int err = 0;
    if (::fchmod(fd_, mode_) != 0) err = errno;
    if (err == 0 && ::fsync(fd_) != 0) err = errno;
    if (::close(fd_) != 0 && err == 0) err = errno;
    fd_ = -1;
    if (err == 0 && ::rename(temp_.c_str(), target_.c_str()) != 0) err = errno;
    if (err != 0) {
        discard();
        return err;
    }
    temp_.clear();
    sync_folder(folder_of(target_));
    return 0;
}

int write_file_atomic(const std::string& path, std::string_view data) {
    AtomicFile file;
    int err = file.open(path);
    if (err == 0) err = file.write(data);
    if (err == 0) err = file.commit();
    return err;
}

}  // namespace vex::codec
