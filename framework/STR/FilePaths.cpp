#include "STR/FilePaths.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace STR {

namespace {

// As the kernel's own limit on links followed in one name.
constexpr int maxLinkHopsCM = 40;

}  // namespace

bool FilePaths::followLinks(const std::string& name, std::string& target) {
  target = name;
  for (int hops = 0; hops < maxLinkHopsCM; ++hops) {
    struct stat status;
    if (::lstat(target.c_str(), &status) != 0) return errno == ENOENT;
    if (!S_ISLNK(status.st_mode)) return true;
    std::string link(static_cast<std::size_t>(status.st_size > 0 ? status.st_size : 255) + 1, '\0');
    const ssize_t length = ::readlink(target.c_str(), link.data(), link.size());
    if (length < 0) return false;
    if (static_cast<std::size_t>(length) == link.size()) {
      // The link changed under us; read it again.
      continue;
    }
    link.resize(static_cast<std::size_t>(length));
    if (link.empty()) {
      errno = ENOENT;
      return false;
    }
    target = link.front() == '/' ? link : folderOf(target) + link;
  }
  errno = ELOOP;
  return false;
}

std::string FilePaths::folderOf(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  return slash == std::string::npos ? std::string() : name.substr(0, slash + 1);
}

std::string FilePaths::baseOf(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  return slash == std::string::npos ? name : name.substr(slash + 1);
}

std::string FilePaths::absolute(const std::string& name) {
  std::filesystem::path path(name);
  if (path.is_relative()) {
    std::string folder(4096, '\0');
    // Without the current folder the name stays relative: still one key per spelling.
    if (::getcwd(folder.data(), folder.size()) != nullptr) path = std::filesystem::path(folder.c_str()) / path;
  }
  return path.lexically_normal().string();
}

bool FilePaths::syncFolderOf(const std::string& name) {
  const std::string folder = folderOf(name);
  const int descriptor = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool synced = ::fsync(descriptor) == 0;
  const int error = errno;
  ::close(descriptor);
  errno = error;
  return synced;
}

}  // namespace STR
