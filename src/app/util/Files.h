#pragma once

#include <stdexcept>
#include <string>

namespace valtor {

// A file that may be there and good, but could not be read now: descriptors or memory had run out,
// or the disk failed.
class ReadFault : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Whole-file input and output. Paths are joined by plain concatenation: a directory argument
// carries its trailing "/". No operation keeps state or takes a lock; any thread may call any of
// them.

// The content of a text file. With keepNewlines every line is followed by one "\n" (a last line
// without a newline gains one), otherwise the lines stand back to back. Throws std::runtime_error
// with "error while opening file: " or "error while reading file: " and the path. A folder counts
// as not read, and so does, with a log line, a file of more than 64 MiB; anything else that is no
// regular file counts as not opened. It is a ReadFault where it is worth trying again.
std::string readTextFile(const std::string& path, bool keepNewlines);

// Replaces the file's content in place (not atomically; a crash may leave it cut) and logs the size
// and the time taken. The file is created when missing. It lies in a folder that everyone may write
// to, so a link, or anything that is not a regular file, is refused like a file that cannot be
// opened. Throws std::runtime_error with "error while opening file: " or
// "error while writing file: " and the path.
void saveTextFile(const std::string& path, const std::string& content);

// Makes the directory, mode 0700, unless something exists at the path already. Its parent must
// exist. Throws std::system_error with "mkdir" directly followed by the path.
void ensureDirectory(const std::string& path);

// Removes white space at the end, in place, and returns the same string.
std::string& trimRight(std::string& text);

// The name in "activeDatabase.json" of the database directory. Despite its name that file holds
// plain text. Throws what readTextFile throws.
std::string readActiveDatabaseName(const std::string& databaseDirectory);

}  // namespace valtor
