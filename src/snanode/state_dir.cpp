/* Where the runtime keeps its files: SNANODE_STATE_DIR, else
 * $XDG_STATE_HOME/snanode, else $HOME/.local/state/snanode. Resolved and
 * created (mode 0700, parents too) once, on first use. */
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"

namespace {

pthread_once_t resolved = PTHREAD_ONCE_INIT;
char directory[PATH_MAX];
bool usable = false;

bool compose(const char *base, const char *suffix) {
  int n = snprintf(directory, sizeof directory, "%s%s", base, suffix);
  return n > 0 && static_cast<size_t>(n) < sizeof directory;
}

bool make_directories(char *path) {
  size_t length = strlen(path);
  while (length > 1 && path[length - 1] == '/') path[--length] = '\0';
  for (char *p = path + 1; *p; ++p) {
    if (*p != '/') continue;
    *p = '\0';
    int rc = mkdir(path, 0700);
    *p = '/';
    if (rc != 0 && errno != EEXIST) return false;
  }
  if (mkdir(path, 0700) != 0 && errno != EEXIST) return false;
  struct stat info;
  return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

void resolve() {
  const char *value = getenv("SNANODE_STATE_DIR");
  bool named = false;
  if (value && *value) {
    named = compose(value, "");
  } else if ((value = getenv("XDG_STATE_HOME")) && *value) {
    named = compose(value, "/snanode");
  } else if ((value = getenv("HOME")) && *value) {
    named = compose(value, "/.local/state/snanode");
  }
  if (named && make_directories(directory)) {
    usable = true;
    return;
  }
  int error = errno;
  char message[PATH_MAX + 128];
  int n = snprintf(message, sizeof message,
                   "snanode: no state directory (%s: %s); logs are not written\n",
                   named ? directory : "SNANODE_STATE_DIR, XDG_STATE_HOME and HOME unset",
                   named ? strerror(error) : "nothing to create");
  if (n > 0) {
    ssize_t written = write(STDERR_FILENO, message, strlen(message));
    (void)written;
  }
}

}  // namespace

extern "C" const char *snanode_state_dir(void) {
  pthread_once(&resolved, resolve);
  return usable ? directory : nullptr;
}
