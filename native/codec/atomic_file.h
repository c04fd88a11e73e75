// Replacing a file so that readers see either the old or the new content, never
// a mix, and a failure or a kill at any instant leaves the old file as it was and
// nothing else behind.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace vex::codec {

// How the content is staged before it replaces the target. Unnamed stages it in
// an O_TMPFILE file that has no name until it is complete, falling back to Named
// where the file system refuses that; Named stages it in an owned temporary
// (see below) from the start.
enum class Staging { Unnamed, Named };

// Writes `data` to a temporary file in the folder of `path`, flushes it to disk
// and renames it over `path`. Returns 0 or the errno of the failure, after
// removing the temporary file. The target gets the permissions open() would give
// a new file (0666 less the umask) or keeps those of the file it replaces. As
// with open(), a directory or an existing file without write permission is
// refused (EISDIR, EACCES) before anything is written. A symbolic link is
// followed: the file it points to is replaced and the link stays.
int write_file_atomic(const std::string& path, std::string_view data, Staging staging = Staging::Unnamed);

// The same replacement, fed in pieces: open() makes the temporary file, write()
// appends to it, commit() flushes it to disk and renames it over the target.
// Every call returns 0 or an errno. An AtomicFile destroyed before a successful
// commit removes its temporary file, so an error anywhere between (a write that
// fails, an exception while the content is being produced) leaves the target as
// it was and nothing behind. open() also removes the stale temporaries of the
// target's folder (those of writers that were killed).
class AtomicFile {
public:
    AtomicFile() = default;
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    int open(const std::string& path, Staging staging = Staging::Unnamed);
    int write(std::string_view data);
    int commit();

private:
    void discard();
    int give_name();

    int fd_ = -1;
    bool unnamed_ = false;
    mode_t mode_ = 0;
    uid_t owner_ = 0;
    gid_t group_ = 0;
    bool keep_owner_ = false;
    std::string target_;
    std::string temp_;
};

// ---------------------------------------------------------- owned files ---
//
// Every file name this module creates for its own use (not a table) reads
// ".vexcore-<kind>-<pid>-<random>-<host>.<rest>": hidden, so listings by
// pattern never take it for a table; <kind> says what it is ("tmp" for the
// temporary of a save, "rename" for the journal of a kit rename), <pid> and
// <host> name the process that owns it. A file whose owner ran on this host and
// is no longer alive is stale: nothing will ever finish or remove it.

struct OwnedFile {
    std::string name;   // the file name, without folder
    std::string kind;
    long pid = 0;
    std::string host;
    bool local = false;   // owned by a process of this host
    bool stale = false;
};

// A new owned name of `kind` for this process, ending in "." + rest (shortened
// so the whole name stays within 255 bytes).
std::string owned_name(std::string_view kind, std::string_view rest);

// The owned files in `folder` (empty when it cannot be listed).
std::vector<OwnedFile> owned_files(const std::string& folder);

// Removes the stale temporaries ("tmp") in `folder`; returns how many went.
int remove_stale_temporaries(const std::string& folder);

// Flushes a folder's entries (a rename or unlink in it) to disk; best effort.
void sync_folder(const std::string& folder);

std::string folder_of(const std::string& path);
std::string base_of(const std::string& path);

}  // namespace vex::codec
