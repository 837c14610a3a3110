// STR::FilePaths is the name arithmetic that the framework's file classes share: the file that a
// name leads to through symbolic links, its folder and base name, the key under which the
// framework remembers a file, and making a change to a folder durable. Stateless; any thread.
#pragma once

#include <string>

namespace STR {

class FilePaths {
public:
  // The file that `name` leads to once every symbolic link on its last component is followed, a
  // relative link read from the folder of the link. A name that leads nowhere yet is where a new
  // file goes, so a dangling link leads to the file it would create. False, with errno set, for
  // a loop or an unreadable link.
  static bool followLinks(const std::string& name, std::string& target);
  // The folder part of `name` with its final slash; "" for a name without folder.
  static std::string folderOf(const std::string& name);
  // `name` without its folder part.
  static std::string baseOf(const std::string& name);
  // `name` as an absolute, lexically normal path: two spellings of one name give one key.
  static std::string absolute(const std::string& name);
  // Makes the renames and removals already done in the folder of `name` durable; false, with
  // errno set, when that could not be done.
  static bool syncFolderOf(const std::string& name);
};

}  // namespace STR
