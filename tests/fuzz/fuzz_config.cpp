// The configuration parser under arbitrary file contents: every input is
// either refused with a line and a reason, or gives a configuration that
// the node core and the side-information service take as it is.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "nodeconfig/daemon_config.h"
#include "protocol/node.h"
#include "snanoded/side_info_service.h"

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

// One scratch file for the process, rewritten for every input.
const std::string& scratch_path() {
  static const std::string path = [] {
    const char* dir = std::getenv("TMPDIR");
    std::string p = std::string(dir && *dir ? dir : "/tmp") + "/fuzz_config.XXXXXX";
    const int fd = mkstemp(p.data());
    if (fd < 0) std::abort();
    close(fd);
    std::atexit([] { unlink(scratch_path().c_str()); });
    return p;
  }();
  return path;
}

bool write_all(const std::string& path, const uint8_t* data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < size) {
    const ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  return done == size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = scratch_path();
  if (!write_all(path, data, size)) std::abort();
  sna::config::ConfigError error;
  std::optional<sna::config::DaemonConfig> config = sna::config::load_config(path, error);
  if (!config) {
    // Refused: the message names the file, and the line when one is known.
    check(!error.reason.empty());
    check(error.line >= 0);
    check(error.text().rfind(path, 0) == 0);
    return 0;
  }
  const sna::config::DaemonConfig& c = *config;
  check(!c.node.local_lus.empty());
  check(c.programs.size() == c.node.tp_definitions.size());
  for (size_t i = 1; i < c.side_info.size(); ++i)
    check(sna::daemon::side_info_key(c.side_info[i - 1]) < sna::daemon::side_info_key(c.side_info[i]));
  // What the daemon does with an accepted file: the core takes it, the
  // operator's side-information list is encoded from it.
  sna::proto::Node node(c.node);
  (void)node.snapshot();
  for (const auto& e : c.side_info) (void)sna::daemon::encode_side_info_entry(e);
  return 0;
}
