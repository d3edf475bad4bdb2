#include "log_tail.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace sna::tools {

bool tail_lines(const std::string& path, size_t count, std::vector<std::string>& lines,
                bool& missing, std::string& error) {
  lines.clear();
  missing = false;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    missing = errno == ENOENT;
    error = std::strerror(errno);
    return false;
  }
  struct stat st {};
  if (fstat(fd, &st) != 0) {
    error = std::strerror(errno);
    ::close(fd);
    return false;
  }
  if (count == 0 || st.st_size == 0) {
    ::close(fd);
    return true;
  }

  // Read backwards in blocks until the text held has count + 1 line
  // breaks (the one before the first wanted line), or the file's start.
  constexpr off_t kBlock = 64 * 1024;
  off_t position = st.st_size;
  std::string text;
  size_t breaks = 0;
  bool first_block = true;
  while (position > 0) {
    const off_t size = std::min(kBlock, position);
    position -= size;
    std::string block(static_cast<size_t>(size), '\0');
    size_t done = 0;
    while (done < block.size()) {
      const ssize_t n = ::pread(fd, block.data() + done, block.size() - done,
                                position + static_cast<off_t>(done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        error = n < 0 ? std::strerror(errno) : "file shrank while being read";
        ::close(fd);
        return false;
      }
      done += static_cast<size_t>(n);
    }
    breaks += static_cast<size_t>(std::count(block.begin(), block.end(), '\n'));
    // The final new line of the file ends the last line; it does not start
    // another.
    if (first_block && block.back() == '\n') --breaks;
    first_block = false;
    text.insert(0, block);
    if (breaks >= count) break;
  }
  ::close(fd);

  if (!text.empty() && text.back() == '\n') text.pop_back();
  size_t end = text.size();
  std::vector<std::string> reversed;
  while (reversed.size() < count) {
    const size_t start = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
    if (start == std::string::npos) {
      reversed.push_back(text.substr(0, end));
      break;
    }
    reversed.push_back(text.substr(start + 1, end - start - 1));
    end = start;
  }
  lines.assign(reversed.rbegin(), reversed.rend());
  return true;
}

}  // namespace sna::tools
