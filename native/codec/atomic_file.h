// Replacing a file so that readers see either the old or the new content, never
// a mix, and a failure leaves the old file as it was.
#pragma once

#include <string>
#include <sys/types.h>
#include <string_view>

namespace vex::codec {

// Writes `data` to a new temporary file in the folder of `path`, flushes it to
// disk and renames it over `path`. Returns 0 or the errno of the failure, after
// removing the temporary file. The target gets the permissions open() would give
// a new file (0666 less the umask) or keeps those of the file it replaces. As
// with open(), a directory or an existing file without write permission is
// refused (EISDIR, EACCES) before anything is written. A symbolic link is
// followed: the file it points to is replaced and the link stays.
int write_file_atomic(const std::string& path, std::string_view data);

// The same replacement, fed in pieces: open() makes the temporary file, write()
// appends to it, commit() flushes it to disk and renames it over the target.
// Every call returns 0 or an errno. An AtomicFile destroyed before a successful
// commit removes its temporary file, so an error anywhere between (a write that
// fails, an exception while the content is being produced) leaves the target as
// it was and nothing behind.
class AtomicFile {
public:
    AtomicFile() = default;
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    int open(const std::string& path);
    int write(std::string_view data);
    int commit();

private:
    void discard();

    int fd_ = -1;
    mode_t mode_ = 0;
    std::string target_;
    std::string temp_;
};

}  // namespace vex::codec
