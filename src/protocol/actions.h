// What the core asks its host to do after an event.
#ifndef SNA_PROTO_ACTIONS_H
#define SNA_PROTO_ACTIONS_H

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "protocol/bytes.h"
#include "protocol/verbs.h"

namespace sna::proto {

using ClientId = uint32_t;
using SessionId = uint32_t;

// A verb finished: write the result into the program's verb block.
struct Completion {
  ClientId client = 0;
  uint64_t tag = 0;  // the host's handle for the verb, as given in
  Opcode opcode = Opcode::kGetState;
  VerbResult result;
};

// A flow leaves a half-session. For sessions whose other half is on this
// node the core delivers it itself; the action is still reported so the
// host can trace it. For remote partners the host carries it.
struct FlowOut {
  SessionId session = 0;
  bool from_primary = true;
  bool delivered_locally = false;
  Bytes bytes;  // RH + RU
  bool secret = false;  // carries a password: the host clears bytes once done with them
};

struct StartTimer {
  uint64_t timer = 0;
  uint32_t milliseconds = 0;
};
struct CancelTimer {
  uint64_t timer = 0;
};

// The attach manager wants an instance of a definition's program.
struct StartProgram {
  uint64_t instance = 0;
  std::string tp_name;        // ASCII (APPCTPN), per the service-TP rule
  std::string local_lu_alias; // APPCLLU
};

// Log data that a partner sent with an error or abend.
struct ProblemLog {
  uint32_t sense = 0;
  Bytes data;
};

using Action = std::variant<Completion, FlowOut, StartTimer, CancelTimer, StartProgram, ProblemLog>;
using Actions = std::vector<Action>;

}  // namespace sna::proto

#endif
