// Scenarios as data: a list of steps run against one daemon with any
// number of programs. Steps:
//   "+P KIND [VAR=VALUE ...]"  start program P: driver, cpic, threads ARG,
//                              peer-driver, peer-cpic (the other word
//                              size's build); waits for its ready line
//                              (not for threads)
//   "P: COMMAND | EXPECTED"    send a command, then expect its line
//   "P: COMMAND"               send only (the result comes later)
//   "P< EXPECTED"              expect the next line
//   "P~ E1 || E2 ..."          the next lines are these, in any order
//   "!kill P"                  SIGKILL program P (its result is not read)
//   "!killdaemon"              SIGKILL the daemon
//   "!restart"                 start a daemon again on the same socket
//   "!mark"                    remember the time
//   "!elapsed MIN MAX"         milliseconds since the mark are in range
//   "!log T1 || T2"            the problem log holds one of the texts
//   "!file NAME TEXT"          file NAME in the test directory holds TEXT
// Expectations are token sets (see line_matches). In commands and
// expectations $LOGIN is the login name that security "same" sends, $DIR
// the test directory, $ECHO the echo TP program.
#ifndef TESTS_E2E_SCENARIO_H
#define TESTS_E2E_SCENARIO_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cctype>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "harness.h"

namespace e2e {

struct Row {
  const char *name;
  std::vector<std::string> steps;
};

inline std::ostream &operator<<(std::ostream &os, const Row &row) { return os << row.name; }

inline std::string replace_all(std::string s, const std::string &from, const std::string &to) {
  for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size())) {
    s.replace(at, from.size(), to);
  }
  return s;
}

inline std::string trim(const std::string &s) {
  size_t b = s.find_first_not_of(' ');
  size_t e = s.find_last_not_of(' ');
  return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

inline std::vector<std::string> split_on(const std::string &s, const std::string &sep) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t at = s.find(sep); at != std::string::npos; at = s.find(sep, start)) {
    out.push_back(trim(s.substr(start, at - start)));
    start = at + sep.size();
  }
  out.push_back(trim(s.substr(start)));
  return out;
}

// An environment variable name: upper-case letters, digits, underscores.
inline bool is_env_name(const std::string &s) {
  if (s.empty() || !std::isupper(static_cast<unsigned char>(s[0]))) return false;
  for (char c : s) {
    if (!(std::isupper(static_cast<unsigned char>(c)) || std::isdigit(static_cast<unsigned char>(c)) ||
          c == '_'))
      return false;
  }
  return true;
}

inline bool has_sanitizer_report(const std::string &text) {
  return text.find("ERROR: AddressSanitizer") != std::string::npos ||
         text.find("ERROR: LeakSanitizer") != std::string::npos ||
         text.find("WARNING: ThreadSanitizer") != std::string::npos ||
         text.find("runtime error:") != std::string::npos;
}

// Runs the steps; returns "" on success, else what failed and the
// transcripts of every program.
class ScenarioRunner {
 public:
  explicit ScenarioRunner(Daemon &daemon) : daemon_(daemon) {}

  // With `last` false the programs stay as they are for more steps;
  // otherwise they are ended and checked (finish) after the steps.
  std::string run(const std::vector<std::string> &steps, bool last = true) {
    std::string failure;
    for (size_t i = 0; i < steps.size() && failure.empty(); ++i) {
      std::string step = expand(steps[i]);
      if (!do_step(step, &failure)) {
        failure = "step " + std::to_string(i + 1) + " \"" + step + "\": " + failure;
      }
    }
    if (failure.empty() && last) failure = finish();
    if (failure.empty()) return "";
    return failure + "\n" + transcripts();
  }

  // Ends the programs: each one that is not waiting in a call exits at the
  // end of its input, with status 0 and no sanitizer report; one still
  // waiting after a second is killed. The daemon has made no such report.
  std::string finish() {
    std::string failure;
    for (auto &kv : programs_) kv.second->close_stdin();
    for (auto &kv : programs_) {
      Process &p = *kv.second;
      auto status = p.wait(1000);
      if (!status) {
        p.signal(SIGKILL);
        p.wait();
        continue;
      }
      if (p.killed_by_test()) continue;
      if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
        failure += p.name() + " ended with wait status " + std::to_string(*status) + "; ";
      }
      if (has_sanitizer_report(p.stderr_text())) failure += p.name() + " reported a sanitizer error; ";
    }
    if (has_sanitizer_report(daemon_.stderr_text())) failure += "the daemon reported a sanitizer error; ";
    return failure;
  }

  Process *program(const std::string &name) {
    auto it = programs_.find(name);
    return it == programs_.end() ? nullptr : it->second.get();
  }

  std::string transcripts() const {
    std::string out;
    for (const auto &kv : programs_) out += kv.second->transcript();
    out += "---- daemon stderr\n" + daemon_.stderr_text();
    out += "---- problems.log\n" + daemon_.problems_log();
    return out;
  }

 private:
  std::string expand(std::string s) const {
    s = replace_all(s, "$LOGIN", login_name_for_same());
    s = replace_all(s, "$DIR", daemon_.dir());
    s = replace_all(s, "$ECHO", E2E_ECHO_TP);
    return s;
  }

  bool start_program(const std::string &spec, std::string *why) {
    std::istringstream in(spec);
    std::string name, kind;
    in >> name >> kind;
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    std::string path;
    bool wait_ready = true;
    const std::string peer = E2E_PEER_BIN;
    if (kind == "driver") {
      path = E2E_DRIVER;
    } else if (kind == "cpic") {
      path = E2E_CPIC_SCRIPT;
    } else if (kind == "threads") {
      path = E2E_CPIC_THREADS;
      wait_ready = false;
    } else if (kind == "peer-driver") {
      path = peer + "/e2e_verb_driver";
    } else if (kind == "peer-cpic") {
      path = peer + "/e2e_cpic_script";
    } else {
      *why = "unknown program kind " + kind;
      return false;
    }
    for (std::string w; in >> w;) {
      size_t eq = w.find('=');
      if (eq != std::string::npos && is_env_name(w.substr(0, eq))) {
        env[w.substr(0, eq)] = w.substr(eq + 1);
      } else {
        args.push_back(w);
      }
    }
    auto p = daemon_.run(name, path, args, env);
    if (!p) {
      *why = "cannot start " + path;
      return false;
    }
    if (wait_ready && !p->expect("ready", why)) {
      programs_[name] = std::move(p);
      return false;
    }
    programs_[name] = std::move(p);
    return true;
  }

  bool do_step(const std::string &step, std::string *why) {
    if (step.empty()) return true;
    if (step[0] == '+') return start_program(step.substr(1), why);
    if (step[0] == '!') return action(step.substr(1), why);
    size_t mark = step.find_first_of(":<~");
    if (mark == std::string::npos) {
      *why = "malformed step";
      return false;
    }
    Process *p = program(step.substr(0, mark));
    if (p == nullptr) {
      *why = "no program " + step.substr(0, mark);
      return false;
    }
    std::string rest = trim(step.substr(mark + 1));
    switch (step[mark]) {
      case ':': {
        std::vector<std::string> parts = split_on(rest, " | ");
        if (!p->send(parts[0])) {
          *why = p->name() + ": cannot write the command";
          return false;
        }
        if (parts.size() > 1) return p->expect(parts[1], why);
        return true;
      }
      case '<':
        return p->expect(rest, why);
      case '~': {
        std::vector<std::string> wanted = split_on(rest, "||");
        while (!wanted.empty()) {
          auto line = p->read_line();
          if (!line) {
            *why = p->name() + ": no line; still expected \"" + wanted[0] + "\"";
            return false;
          }
          bool matched = false;
          for (size_t i = 0; i < wanted.size() && !matched; ++i) {
            if (line_matches(*line, wanted[i])) {
              wanted.erase(wanted.begin() + static_cast<long>(i));
              matched = true;
            }
          }
          if (!matched) {
            *why = p->name() + ": got \"" + *line + "\", expected one of the remaining lines";
            return false;
          }
        }
        return true;
      }
    }
    return false;
  }

  bool action(const std::string &text, std::string *why) {
    std::istringstream in(text);
    std::string verb;
    in >> verb;
    if (verb == "kill") {
      std::string name;
      in >> name;
      Process *p = program(name);
      if (p == nullptr) {
        *why = "no program " + name;
        return false;
      }
      p->signal(SIGKILL);
      p->mark_killed();
      if (!p->wait()) {
        *why = name + " did not die";
        return false;
      }
      return true;
    }
    if (verb == "killdaemon") {
      daemon_.kill_hard();
      return true;
    }
    if (verb == "restart") return daemon_.restart(why);
    if (verb == "mark") {
      mark_ = Clock::now();
      return true;
    }
    if (verb == "elapsed") {
      int lo = 0, hi = 0;
      in >> lo >> hi;
      int ms = elapsed_ms(mark_);
      if (ms < lo || ms > hi) {
        *why = "took " + std::to_string(ms) + " ms, expected " + std::to_string(lo) + ".." +
               std::to_string(hi);
        return false;
      }
      return true;
    }
    if (verb == "log") {
      std::string rest;
      std::getline(in, rest);
      std::string log = daemon_.problems_log();
      for (const auto &t : split_on(trim(rest), "||")) {
        if (log.find(t) != std::string::npos) return true;
      }
      *why = "the problem log holds none of: " + rest;
      return false;
    }
    if (verb == "file") {
      std::string name, want;
      in >> name >> want;
      std::string content = read_file(daemon_.dir() + "/" + name);
      if (content.find(want) == std::string::npos) {
        *why = name + " does not hold \"" + want + "\"; it holds:\n" + content;
        return false;
      }
      return true;
    }
    if (extra_action) return extra_action(text, why);
    *why = "unknown action " + verb;
    return false;
  }

 public:
  // Actions a test adds of its own ("!WORD ..." not known above).
  std::function<bool(const std::string &text, std::string *why)> extra_action;

 private:

  Daemon &daemon_;
  std::map<std::string, std::unique_ptr<Process>> programs_;
  Clock::time_point mark_ = Clock::now();
};

}  // namespace e2e

#endif
