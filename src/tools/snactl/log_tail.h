// The last lines of a log file, read from its end so that a long log
// costs no more than the lines wanted.
#ifndef SNA_TOOLS_LOG_TAIL_H
#define SNA_TOOLS_LOG_TAIL_H

#include <string>
#include <vector>

namespace sna::tools {

// The last `count` lines of the file (without their new lines; a last
// line without one counts too). False with `error` (errno text) when the
// file cannot be read; `missing` tells a file that does not exist.
bool tail_lines(const std::string& path, size_t count, std::vector<std::string>& lines,
                bool& missing, std::string& error);

}  // namespace sna::tools

#endif
