// Replacing a file so that readers see either the old or the new content, never
// a mix, and a failure leaves the old file as it was.
#pragma once

#include <string>
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

}  // namespace vex::codec
