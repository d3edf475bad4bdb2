// snanoded: the node daemon.
//
//   snanoded [--config FILE] [--socket PATH] [--state-dir DIR]
//            [--idle-exit SECONDS] [--ready-fd N] [--autostarted]
//   snanoded --check-config FILE
//   snanoded --hash-password          (reads the password from stdin)
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "nodeconfig/daemon_config.h"
#include "snanoded/daemon.h"
#include "snanoded/paths.h"

namespace {

constexpr int kBadConfig = 2;

int check_config(const std::string& file) {
  sna::config::ConfigError error;
  if (!sna::config::load_config(file, error)) {
    std::cerr << error.text() << "\n";
    return kBadConfig;
  }
  std::cout << file << ": OK\n";
  return 0;
}

int hash_password() {
  std::string password;
  if (!std::getline(std::cin, password) && password.empty()) {
    std::cerr << "snanoded: no password on standard input\n";
    return kBadConfig;
  }
  if (!password.empty() && password.back() == '\r') password.pop_back();
  if (password.empty()) {
    std::cerr << "snanoded: the password is empty\n";
    return kBadConfig;
  }
  const std::string hash = sna::config::hash_password(password);
  if (hash.empty()) {
    std::cerr << "snanoded: cannot hash the password\n";
    return 1;
  }
  std::cout << hash << "\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"snanoded: the SNA node daemon"};
  std::string config_file, socket, state_dir, check_file;
  uint32_t idle_exit = 0;
  int ready_fd = -1;
  bool autostarted = false, hash = false;
  app.add_option("--config", config_file, "configuration file (TOML)");
  app.add_option("--socket", socket, "socket path");
  app.add_option("--state-dir", state_dir, "directory for logs and traces");
  CLI::Option* idle_opt =
      app.add_option("--idle-exit", idle_exit, "exit after this many seconds without clients (0: never)");
  app.add_option("--ready-fd", ready_fd, "write one byte to this descriptor once the socket listens");
  app.add_flag("--autostarted", autostarted, "started on demand by the runtime (idle exit 60 s)");
  CLI::Option* check_opt = app.add_option("--check-config", check_file, "check a configuration file and exit");
  CLI::Option* hash_opt = app.add_flag("--hash-password", hash, "hash a password read from stdin and exit");
  check_opt->excludes(hash_opt);
  CLI11_PARSE(app, argc, argv);

  if (!check_file.empty()) return check_config(check_file);
  if (hash) return hash_password();

  if (ready_fd >= 0 && fcntl(ready_fd, F_GETFD) < 0) {
    std::cerr << "snanoded: --ready-fd " << ready_fd << " is not an open descriptor\n";
    return 1;
  }
  // The ready descriptor is ours alone: started programs must not get it.
  if (ready_fd >= 0) fcntl(ready_fd, F_SETFD, FD_CLOEXEC);

  sna::daemon::DaemonSettings settings;
  if (!config_file.empty()) {
    sna::config::ConfigError error;
    std::optional<sna::config::DaemonConfig> loaded = sna::config::load_config(config_file, error);
    if (!loaded) {
      std::cerr << error.text() << "\n";
      return kBadConfig;
    }
    settings.config = std::move(*loaded);
    settings.config_path = config_file;
  } else {
    settings.config = sna::config::builtin_defaults();
    // cpicping's partner comes with the node, so a ping of the local LU
    // works on a machine where nothing has been configured.
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
      self[n] = 0;
      std::string partner(self);
      partner = partner.substr(0, partner.rfind('/') + 1) + "cpicpingd";
      if (access(partner.c_str(), X_OK) == 0) sna::config::add_ping_partner(settings.config, partner);
    }
  }

  auto env = [](const char* name) -> const char* { return std::getenv(name); };
  settings.socket_path =
      sna::daemon::choose_socket_path(socket, settings.config.socket, env, static_cast<unsigned>(getuid()));
  settings.state_dir = sna::daemon::choose_state_dir(state_dir, settings.config.state_dir, env);
  std::string error;
  if (!sna::daemon::make_private_directory(settings.state_dir, error)) {
    std::cerr << "snanoded: state directory: " << error << "\n";
    return 1;
  }
  // The log writers find the directory here.
  setenv("SNANODE_STATE_DIR", settings.state_dir.c_str(), 1);

  if (idle_opt->count())
    settings.idle_exit_s = idle_exit;
  else if (settings.config.idle_exit_set)
    settings.idle_exit_s = settings.config.idle_exit_s;
  else
    settings.idle_exit_s = autostarted ? 60 : 0;
  settings.ready_fd = ready_fd;

  sna::daemon::Daemon daemon(std::move(settings));
  return daemon.run();
}
