#include "codec/atomic_file.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vex::codec {
namespace {

// The longest file name the usual Linux file systems take.
constexpr std::size_t kNameMax = 255;
constexpr std::string_view kOwnedPrefix = ".vexcore-";

// The process umask, read without changing it where the system allows (another
// thread calling open() meanwhile must not see a umask of 0).
mode_t current_umask() {
    if (FILE* status = std::fopen("/proc/self/status", "re")) {
        char line[256];
        unsigned mask = 0;
        bool found = false;
        while (!found && std::fgets(line, sizeof line, status)) found = std::sscanf(line, "Umask: %o", &mask) == 1;
        std::fclose(status);
        if (found) return static_cast<mode_t>(mask);
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
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

// The host part of owned names: the host name in characters that need no
// quoting and hold no '.' (which ends the owner part of a name).
const std::string& host_tag() {
    static const std::string tag = [] {
        char name[256] = {};
        if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return std::string("localhost");
        std::string out;
        for (const char* c = name; *c && out.size() < 32; ++c) {
            const bool plain = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') || (*c >= '0' && *c <= '9') ||
                               *c == '-' || *c == '_';
            out += plain ? *c : '_';
        }
        return out;
    }();
    return tag;
}

std::string random_tag() {
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char bytes[6] = {};
    if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        // Without entropy the clock and a counter still make clashes unlikely;
        // a clash is retried anyway (O_EXCL, linkat's EEXIST).
        static unsigned counter = 0;
        unsigned long seed = static_cast<unsigned long>(::time(nullptr)) * 2654435761u + ++counter * 40503u;
        for (unsigned char& b : bytes) b = static_cast<unsigned char>(seed >>= 5);
    }
    std::string out;
    for (unsigned char b : bytes) out += alphabet[b % (sizeof alphabet - 1)];
    return out;
}

bool owner_alive(long pid) {
    if (pid <= 0) return true;    // not ours to judge
    if (pid == static_cast<long>(::getpid())) return true;
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH;
}

// Parses ".vexcore-<kind>-<pid>-<random>-<host>.<rest>"; false for other names.
bool parse_owned(const std::string& name, OwnedFile& out) {
    if (name.compare(0, kOwnedPrefix.size(), kOwnedPrefix) != 0) return false;
    const std::size_t end = name.find('.', kOwnedPrefix.size());
    if (end == std::string::npos) return false;
    const std::string owner = name.substr(kOwnedPrefix.size(), end - kOwnedPrefix.size());
    const std::size_t a = owner.find('-');
    const std::size_t b = a == std::string::npos ? a : owner.find('-', a + 1);
    const std::size_t c = b == std::string::npos ? b : owner.find('-', b + 1);
    if (c == std::string::npos || a == 0 || b == a + 1 || b - a - 1 > 9 || c + 1 >= owner.size()) return false;
    long pid = 0;
    for (std::size_t i = a + 1; i < b; ++i) {
        if (owner[i] < '0' || owner[i] > '9') return false;
        pid = pid * 10 + (owner[i] - '0');
    }
    out.name = name;
    out.kind = owner.substr(0, a);
    out.pid = pid;
    out.host = owner.substr(c + 1);
    out.local = out.host == host_tag();
    out.stale = out.local && !owner_alive(pid);
    return true;
}

// A new owned temporary for `target` in its folder, opened for writing.
int create_named(const std::string& target, int& fd, std::string& temp) {
    const std::string folder = folder_of(target);
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string path = folder + "/" + owned_name("tmp", base_of(target));
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            temp = std::move(path);
            return 0;
        }
        if (errno != EEXIST) return errno;
    }
    return EEXIST;
}

}  // namespace

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

std::string owned_name(std::string_view kind, std::string_view rest) {
    std::string name(kOwnedPrefix);
    name += kind;
    name += '-' + std::to_string(::getpid()) + '-' + random_tag() + '-' + host_tag() + '.';
    name += rest.substr(0, kNameMax > name.size() ? kNameMax - name.size() : 0);
    return name;
}

std::vector<OwnedFile> owned_files(const std::string& folder) {
    std::vector<OwnedFile> found;
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return found;
    while (const dirent* entry = ::readdir(dir)) {
        OwnedFile file;
        if (parse_owned(entry->d_name, file)) found.push_back(std::move(file));
    }
    ::closedir(dir);
    return found;
}

int remove_stale_temporaries(const std::string& folder) {
    int removed = 0;
    for (const OwnedFile& file : owned_files(folder))
        if (file.kind == "tmp" && file.stale && ::unlink((folder + "/" + file.name).c_str()) == 0) ++removed;
    return removed;
}

void sync_folder(const std::string& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

// ------------------------------------------------------------ AtomicFile ---

AtomicFile::~AtomicFile() { discard(); }

void AtomicFile::discard() {
    if (fd_ >= 0) ::close(fd_);
    if (!temp_.empty()) ::unlink(temp_.c_str());
    fd_ = -1;
    unnamed_ = false;
    temp_.clear();
}

namespace {

// The mode (and owner) for the new content, refusing what open(path, "w") would
// refuse: the replaced file's, or what open() gives a new file.
int target_attributes(const std::string& path, mode_t& mode, uid_t& owner, gid_t& group, bool& keep) {
    struct stat st;
    keep = false;
    if (::stat(path.c_str(), &st) != 0) {
        if (errno != ENOENT) return errno;
        mode = 0666 & ~current_umask();
        return 0;
    }
    if (S_ISDIR(st.st_mode)) return EISDIR;
    if (::access(path.c_str(), W_OK) != 0) return errno;
    mode = st.st_mode & 07777;
    owner = st.st_uid;
    group = st.st_gid;
    keep = true;
    return 0;
}

}  // namespace

int AtomicFile::open(const std::string& requested, Staging staging) {
    discard();
    target_ = requested;
    int err = resolve_links(target_);
    if (err == 0) err = target_attributes(target_, mode_, owner_, group_, keep_owner_);
    if (err != 0) return err;
    const std::string folder = folder_of(target_);
    remove_stale_temporaries(folder);
    // Linking an unnamed file goes through /proc; without it, stage under a name.
    if (staging == Staging::Unnamed && ::access("/proc/self/fd", X_OK) == 0) {
        fd_ = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
        if (fd_ >= 0) {
            unnamed_ = true;
            return 0;
        }
    }
    return create_named(target_, fd_, temp_);
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

// Links the complete unnamed file under an owned temporary name in the target's
// folder. link() cannot replace a name, so the rename that follows does; between
// the two the file has a name that a later writer recognises as stale if this
// process dies there.
int AtomicFile::give_name() {
    const std::string proc = "/proc/self/fd/" + std::to_string(fd_);
    const std::string folder = folder_of(target_);
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string path = folder + "/" + owned_name("tmp", base_of(target_));
        if (::linkat(AT_FDCWD, proc.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            temp_ = std::move(path);
            unnamed_ = false;
            return 0;
        }
        if (errno != EEXIST) return errno;
    }
    return EEXIST;
}

int AtomicFile::commit() {
    if (fd_ < 0) return EBADF;
    int err = 0;
    // A replaced table keeps its owner and group, so the account that could read
    // it still can: root can give the file away, anyone else only its group (best
    // effort: a group the writer is not in stays the writer's).
    if (keep_owner_ && ::geteuid() == 0 && (owner_ != 0 || group_ != ::getegid()))
        (void)::fchown(fd_, owner_, group_);
    else if (keep_owner_ && group_ != ::getegid())
        (void)::fchown(fd_, static_cast<uid_t>(-1), group_);
    if (::fchmod(fd_, mode_) != 0) err = errno;
    if (err == 0 && ::fsync(fd_) != 0) err = errno;
    if (err == 0 && unnamed_) err = give_name();
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

int write_file_atomic(const std::string& path, std::string_view data, Staging staging) {
    AtomicFile file;
    int err = file.open(path, staging);
    if (err == 0) err = file.write(data);
    if (err == 0) err = file.commit();
    return err;
}

}  // namespace vex::codec
