// The CPI-C view end to end: pairs of C programs linked with libcpic.so and
// libsnanode.so, each driven one call per line, against a real daemon.
// A allocates, B accepts under the name SRV.
#include <gtest/gtest.h>

#include "configs.h"
#include "harness.h"
#include "scenario.h"

namespace e2e {
namespace {

using Steps = std::vector<std::string>;

Steps operator+(Steps a, const Steps &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Both programs started; B has registered SRV.
Steps pair() { return {"+A cpic", "+B cpic", "B: CMSLTP SRV | CMSLTP CM_OK"}; }

// A's conversation `a` allocated to SRV with the given Set calls before
// CMALLC; B accepted it as `b`. A is in send state, B in receive state.
Steps allocated(const Steps &sets = {}, const std::string &a = "c", const std::string &b = "b") {
  Steps s = {"A: CMINIT " + a + " | CMINIT CM_OK", "A: CMSTPN " + a + " SRV | CMSTPN CM_OK"};
  for (const auto &set : sets) s.push_back("A: " + set);
  s.push_back("A: CMALLC " + a + " | CMALLC CM_OK");
  s.push_back("B: CMACCP " + b);
  s.push_back("A: CMFLUS " + a + " | CMFLUS CM_OK");
  s.push_back("B< CMACCP CM_OK");
  return s;
}

Steps conversation(const Steps &sets = {}) { return pair() + allocated(sets); }

// A sends one record and gives B the right to send: A receives, B sends.
// `record` is the data argument; on a basic conversation it holds its LL.
Steps turned(const Steps &sets = {}, const std::string &record = "TURN") {
  return conversation(sets) + Steps{
      "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
      "A: CMSEND c " + record + " | CMSEND CM_OK",
      "B: CMRCV b 100 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED st=CM_SEND_RECEIVED",
  };
}

// Three conversations c1..c3 from A to B's b1..b3, each turned so that A
// receives.
Steps three_turned() {
  Steps s = pair();
  for (int i = 1; i <= 3; ++i) {
    const std::string n = std::to_string(i);
    s = s + allocated({}, "c" + n, "b" + n) + Steps{
        "A: CMSST c" + n + " CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
        "A: CMSEND c" + n + " GO" + n + " | CMSEND CM_OK",
        "B: CMRCV b" + n + " 100 | CMRCV CM_OK text=GO" + n + " st=CM_SEND_RECEIVED",
        "B: CMSST b" + n + " CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
    };
  }
  return s;
}

const std::vector<Row> &rows() {
  static const std::vector<Row> table = {
      {"PingPongMapped",
       conversation() + Steps{
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c PING | CMSEND CM_OK rts=CM_REQ_TO_SEND_NOT_RECEIVED",
           "B: CMECT b | CMECT CM_OK value=1",
           "B: CMESL b | CMESL CM_OK value=0",
           "B: CMRCV b 100 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED len=4 text=PING "
           "st=CM_SEND_RECEIVED rts=CM_REQ_TO_SEND_NOT_RECEIVED",
           "B: CMSST b CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "B: CMSEND b PONG | CMSEND CM_OK",
           "A: CMRCV c 100 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED len=4 text=PONG st=CM_SEND_RECEIVED",
           "A: CMSEND c PING2 | CMSEND CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=PING2 st=CM_SEND_RECEIVED",
           "B: CMSDT b CM_DEALLOCATE_FLUSH | CMSDT CM_OK",
           "B: CMDEAL b | CMDEAL CM_OK",
           "A: CMRCV c 100 | CMRCV CM_DEALLOCATED_NORMAL",
       }},
      {"PingPongBasic",
       conversation({"CMSCT c CM_BASIC_CONVERSATION | CMSCT CM_OK"}) + Steps{
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c x:000650494E47 | CMSEND CM_OK",
           "B: CMECT b | CMECT CM_OK value=0",
           "B: CMRCV b 100 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED len=6 data=000650494E47 "
           "st=CM_SEND_RECEIVED",
           "B: CMSST b CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "B: CMSEND b x:0006504F4E47 | CMSEND CM_OK",
           "A: CMRCV c 100 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED len=6 data=0006504F4E47 "
           "st=CM_SEND_RECEIVED",
           // Buffer fill: the bytes without record boundaries.
           "A: CMSEND c x:000341000342 | CMSEND CM_OK",
           "B: CMSF b CM_FILL_BUFFER | CMSF CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK dr=CM_DATA_RECEIVED len=6 data=000341000342 st=CM_SEND_RECEIVED",
       }},
      {"Confirm",
       pair() + Steps{
           "A: CMINIT c | CMINIT CM_OK",
           "A: CMSTPN c SRV | CMSTPN CM_OK",
           "A: CMSSL c CM_CONFIRM | CMSSL CM_OK",
           "A: CMALLC c | CMALLC CM_OK",
           "B: CMACCP b",
           "A: CMSEND c DATA | CMSEND CM_OK",
           "A: CMCFM c",
           "B< CMACCP CM_OK",
           "B: CMESL b | CMESL CM_OK value=1",
           "B: CMRCV b 100 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED text=DATA st=CM_CONFIRM_RECEIVED",
           "B: CMECS b | CMECS CM_OK state=CM_CONFIRM_STATE",
           "B: CMCFMD b | CMCFMD CM_OK",
           "A< CMCFM CM_OK rts=CM_REQ_TO_SEND_NOT_RECEIVED",
           "A: CMECS c | CMECS CM_OK state=CM_SEND_STATE",
           "B: CMECS b | CMECS CM_OK state=CM_RECEIVE_STATE",
       }},
      {"SendErrorInReceiveState",
       conversation() + Steps{
           "A: CMSST c CM_SEND_AND_FLUSH | CMSST CM_OK",
           "A: CMSEND c ONE | CMSEND CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=ONE st=CM_NO_STATUS_RECEIVED",
           "B: CMSERR b | CMSERR CM_OK",
           "B: CMECS b | CMECS CM_OK state=CM_SEND_STATE",
           "A: CMSEND c TWO | CMSEND CM_PROGRAM_ERROR_PURGING",
           "A: CMECS c | CMECS CM_OK state=CM_RECEIVE_STATE",
           "B: CMSST b CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "B: CMSEND b WHY | CMSEND CM_OK",
           "A: CMRCV c 100 | CMRCV CM_OK text=WHY st=CM_SEND_RECEIVED",
       }},
      // B received data and SEND together (send-pending): the error
      // direction says whether the error is in B's receiving or sending.
      {"SendErrorInSendPendingReceiveDirection",
       turned() + Steps{
           "B: CMECS b | CMECS CM_OK state=CM_SEND_PENDING_STATE",
           "B: CMSERR b | CMSERR CM_OK",
           "B: CMFLUS b | CMFLUS CM_OK",
           "A: CMRCV c 100 | CMRCV CM_PROGRAM_ERROR_PURGING",
           "A: CMECS c | CMECS CM_OK state=CM_RECEIVE_STATE",
       }},
      {"SendErrorInSendPendingSendDirection",
       turned() + Steps{
           "B: CMSED b CM_SEND_ERROR | CMSED CM_OK",
           "B: CMSERR b | CMSERR CM_OK",
           "B: CMFLUS b | CMFLUS CM_OK",
           "A: CMRCV c 100 | CMRCV CM_PROGRAM_ERROR_NO_TRUNC",
       }},
      {"SendErrorInSendState",
       turned() + Steps{
           "B: CMSEND b MORE | CMSEND CM_OK",
           "B: CMSERR b | CMSERR CM_OK",
           "B: CMFLUS b | CMFLUS CM_OK",
           "A: CMRCV c 100 | CMRCV CM_OK text=MORE",
           "A: CMRCV c 100 | CMRCV CM_PROGRAM_ERROR_NO_TRUNC",
           "A: CMECS c | CMECS CM_OK state=CM_RECEIVE_STATE",
       }},
      {"DeallocateFlush",
       conversation() + Steps{
           "A: CMSEND c BYE | CMSEND CM_OK",
           "A: CMSDT c CM_DEALLOCATE_FLUSH | CMSDT CM_OK",
           "A: CMDEAL c | CMDEAL CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=BYE",
           "B: CMRCV b 100 | CMRCV CM_DEALLOCATED_NORMAL",
           "B: CMECS b | CMECS CM_PROGRAM_PARAMETER_CHECK",
       }},
      {"DeallocateSyncLevelNone",
       conversation() + Steps{
           "A: CMSDT c CM_DEALLOCATE_SYNC_LEVEL | CMSDT CM_OK",
           "A: CMDEAL c | CMDEAL CM_OK",
           "B: CMRCV b 100 | CMRCV CM_DEALLOCATED_NORMAL",
       }},
      {"DeallocateSyncLevelConfirm",
       conversation({"CMSSL c CM_CONFIRM | CMSSL CM_OK"}) + Steps{
           "A: CMSDT c CM_DEALLOCATE_SYNC_LEVEL | CMSDT CM_OK",
           "A: CMDEAL c",
           "B: CMRCV b 100 | CMRCV CM_OK dr=CM_NO_DATA_RECEIVED st=CM_CONFIRM_DEALLOC_RECEIVED",
           "B: CMECS b | CMECS CM_OK state=CM_CONFIRM_DEALLOCATE_STATE",
           "B: CMCFMD b | CMCFMD CM_OK",
           "A< CMDEAL CM_OK",
           "B: CMECS b | CMECS CM_PROGRAM_PARAMETER_CHECK",
       }},
      {"DeallocateConfirmRefused",
       conversation({"CMSSL c CM_CONFIRM | CMSSL CM_OK"}) + Steps{
           "A: CMSDT c CM_DEALLOCATE_CONFIRM | CMSDT CM_OK",
           "A: CMDEAL c",
           "B: CMRCV b 100 | CMRCV CM_OK st=CM_CONFIRM_DEALLOC_RECEIVED",
           "B: CMSERR b | CMSERR CM_OK",
           "A< CMDEAL CM_PROGRAM_ERROR_PURGING",
           "A: CMECS c | CMECS CM_OK state=CM_RECEIVE_STATE",
       }},
      {"DeallocateAbendMapped",
       conversation() + Steps{
           "A: CMSDT c CM_DEALLOCATE_ABEND | CMSDT CM_OK",
           "A: CMSEND c LOST | CMSEND CM_OK",
           "A: CMFLUS c | CMFLUS CM_OK",
           "A: CMDEAL c | CMDEAL CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=LOST",
           "B: CMRCV b 100 | CMRCV CM_DEALLOCATED_ABEND",
       }},
      {"DeallocateAbendBasicWithLogData",
       turned({"CMSCT c CM_BASIC_CONVERSATION | CMSCT CM_OK"}, "x:00065455524E") + Steps{
           "A: CMSDT c CM_DEALLOCATE_ABEND | CMSDT CM_OK",
           "A: CMSLD c LOGGED77 | CMSLD CM_OK",
           "A: CMDEAL c | CMDEAL CM_OK",
           "B: CMSEND b x:000341 | CMSEND CM_DEALLOCATED_ABEND",
           "!log LOGGED77 || 4C4F474745443737 || D3D6C7C7C5C4F7F7",
       }},
      {"ReceiveImmediate",
       conversation() + Steps{
           "B: CMSRT b CM_RECEIVE_IMMEDIATE | CMSRT CM_OK",
           "B: CMRCV b 100 | CMRCV CM_UNSUCCESSFUL",
           "A: CMSST c CM_SEND_AND_FLUSH | CMSST CM_OK",
           "A: CMSEND c NOW | CMSEND CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED text=NOW",
           "B: CMRCV b 100 | CMRCV CM_UNSUCCESSFUL",
       }},
      {"RequestToSend",
       conversation() + Steps{
           "B: CMRTS b | CMRTS CM_OK",
           "A: CMTRTS c | CMTRTS CM_OK rts=CM_REQ_TO_SEND_RECEIVED",
           "A: CMTRTS c | CMTRTS CM_OK rts=CM_REQ_TO_SEND_NOT_RECEIVED",
           "B: CMRTS b | CMRTS CM_OK",
           "A: CMSEND c X | CMSEND CM_OK rts=CM_REQ_TO_SEND_RECEIVED",
           "A: CMSEND c Y | CMSEND CM_OK rts=CM_REQ_TO_SEND_NOT_RECEIVED",
       }},
      {"NonBlockingWaitOverThreeConversations",
       three_turned() + Steps{
           "A: CMSPM c1 CM_NON_BLOCKING | CMSPM CM_OK",
           "A: CMSPM c2 CM_NON_BLOCKING | CMSPM CM_OK",
           "A: CMSPM c3 CM_NON_BLOCKING | CMSPM CM_OK",
           "A: CMRCV c1 100 | CMRCV CM_OPERATION_INCOMPLETE",
           "A: CMRCV c2 100 | CMRCV CM_OPERATION_INCOMPLETE",
           "A: CMRCV c3 100 | CMRCV CM_OPERATION_INCOMPLETE",
           // Wait blocks until one of them completes.
           "A: CMWAIT",
           "B: CMSEND b2 R2 | CMSEND CM_OK",
           "A< CMWAIT CM_OK conv=c2 crc=CM_OK op=CMRCV text=R2 st=CM_SEND_RECEIVED",
           "B: CMSEND b3 R3 | CMSEND CM_OK",
           "A: CMWAIT | CMWAIT CM_OK conv=c3 crc=CM_OK op=CMRCV text=R3 st=CM_SEND_RECEIVED",
           "B: CMSEND b1 R1 | CMSEND CM_OK",
           "A: CMWAIT | CMWAIT CM_OK conv=c1 crc=CM_OK op=CMRCV text=R1 st=CM_SEND_RECEIVED",
       }},
      {"InitializeForIncomingNonBlocking",
       Steps{
           "+A cpic",
           "+B cpic APPCTPN=SRV",
           "B: CMINIC b | CMINIC CM_OK",
           "B: CMECS b | CMECS CM_OK state=CM_INITIALIZE_INCOMING_STATE",
           "B: CMSPM b CM_NON_BLOCKING | CMSPM CM_OK",
           "B: CMACCI b | CMACCI CM_OPERATION_INCOMPLETE",
           "A: CMINIT c | CMINIT CM_OK",
           "A: CMSTPN c SRV | CMSTPN CM_OK",
           "A: CMALLC c | CMALLC CM_OK",
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c IN | CMSEND CM_OK",
           "B: CMWAIT | CMWAIT CM_OK conv=b crc=CM_OK op=CMACCI",
           "B: CMETPN b | CMETPN CM_OK value=SRV",
           "B: CMSPM b CM_BLOCKING | CMSPM CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=IN st=CM_SEND_RECEIVED",
       }},
      {"InitializeForIncomingBlocking",
       pair() + Steps{
           "B: CMINIC b | CMINIC CM_OK",
           "B: CMACCI b",
           "A: CMINIT c | CMINIT CM_OK",
           "A: CMSTPN c SRV | CMSTPN CM_OK",
           "A: CMALLC c | CMALLC CM_OK",
           "A: CMFLUS c | CMFLUS CM_OK",
           "B< CMACCI CM_OK",
           "B: CMECS b | CMECS CM_OK state=CM_RECEIVE_STATE",
       }},
      {"CancelOutstandingReceive",
       turned() + Steps{
           "A: CMSPM c CM_NON_BLOCKING | CMSPM CM_OK",
           "A: CMRCV c 100 | CMRCV CM_OPERATION_INCOMPLETE",
           "A: CMCANC c | CMCANC CM_OK",
           // The cancelled receive completes through its own routine (the
           // node's "cancelled" code has no CPI-C meaning: 20, logged);
           // once collected the conversation is gone.
           "A: CMWAIT | CMWAIT CM_OK conv=c crc=CM_PRODUCT_SPECIFIC_ERROR",
           "A: CMECS c | CMECS CM_PROGRAM_PARAMETER_CHECK",
           "B: CMSEND b LATE | CMSEND CM_DEALLOCATED_ABEND",
       }},
      {"SideInformationFromConfiguration",
       pair() + Steps{
           "A: CMINIT c SRVDEST | CMINIT CM_OK",
           "A: CMETPN c | CMETPN CM_OK value=SRV",
           "A: CMEMN c | CMEMN CM_OK value=#INTER",
           "A: CMEPLN c | CMEPLN CM_OK value=NETWORK.LOCAL",
           "A: CMALLC c | CMALLC CM_OK",
           "B: CMACCP b",
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c VIASIDE | CMSEND CM_OK",
           "B< CMACCP CM_OK",
           "B: CMEMN b | CMEMN CM_OK value=#INTER",
           "B: CMRCV b 100 | CMRCV CM_OK text=VIASIDE st=CM_SEND_RECEIVED",
           "A: CMINIT d NOSUCH | CMINIT CM_PROGRAM_PARAMETER_CHECK",
       }},
      {"SideInformationWithProgramSecurity",
       pair() + Steps{
           "A: CMINIT c SIDE1 | CMINIT CM_OK",
           "A: CMECST c | CMECST CM_OK value=2",
           "A: CMALLC c | CMALLC CM_OK",
           "B: CMACCP b",
           "A: CMFLUS c | CMFLUS CM_OK",
           "B< CMACCP CM_OK",
           "B: CMESUI b | CMESUI CM_OK value=ALICE",
       }},
      {"SideInformationFromXcmssi",
       pair() + Steps{
           "A: XCMSSI MYDEST LOCAL SRV #INTER CM_SECURITY_NONE - - | XCMSSI CM_OK",
           "A: CMINIT c MYDEST | CMINIT CM_OK",
           "A: CMETPN c | CMETPN CM_OK value=SRV",
           "A: CMEPLN c | CMEPLN CM_OK value=LOCAL",
           "A: CMALLC c | CMALLC CM_OK",
           "B: CMACCP b",
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c MINE | CMSEND CM_OK",
           "B< CMACCP CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=MINE st=CM_SEND_RECEIVED",
           "A: XCMDSI MYDEST | XCMDSI CM_OK",
           "A: CMINIT d MYDEST | CMINIT CM_PROGRAM_PARAMETER_CHECK",
       }},
      {"SecuritySame",
       conversation() + Steps{
           "B: CMESUI b | CMESUI CM_OK value=$LOGIN",
       }},
      {"SecurityProgramAccepted",
       pair() + allocated({"CMSCST c CM_SECURITY_PROGRAM | CMSCST CM_OK",
                           "CMSCSU c ALICE | CMSCSU CM_OK",
                           "CMSCSP c SECRET1 | CMSCSP CM_OK"}) + Steps{
           "B: CMESUI b | CMESUI CM_OK value=ALICE",
       }},
      {"SecurityProgramRefused",
       pair() + Steps{
           "A: CMINIT c | CMINIT CM_OK",
           "A: CMSTPN c SRV | CMSTPN CM_OK",
           "A: CMSCST c CM_SECURITY_PROGRAM | CMSCST CM_OK",
           "A: CMSCSU c ALICE | CMSCSU CM_OK",
           "A: CMSCSP c WRONG | CMSCSP CM_OK",
           "A: CMALLC c | CMALLC CM_OK",
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c HI | CMSEND CM_OK",
           "A: CMRCV c 100 | CMRCV CM_SECURITY_NOT_VALID",
           "A: CMINIT d | CMINIT CM_OK",
           "A: CMSTPN d SRV | CMSTPN CM_OK",
           "A: XCSCST d CM_SECURITY_PROGRAM_STRONG | XCSCST CM_OK",
           "A: XCSCSU d NOBODY | XCSCSU CM_OK",
           "A: XCSCSP d SECRET1 | XCSCSP CM_OK",
           "A: CMALLC d | CMALLC CM_OK",
           "A: CMSST d CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND d HI | CMSEND CM_OK",
           "A: CMRCV d 100 | CMRCV CM_SECURITY_NOT_VALID",
       }},
      {"InvokableTpStartedByAttachManager",
       Steps{
           "+A cpic",
           "A: CMINIT c | CMINIT CM_OK",
           "A: CMSTPN c ECHO | CMSTPN CM_OK",
           "A: CMALLC c | CMALLC CM_OK",
           "A: CMSST c CM_SEND_AND_PREP_TO_RECEIVE | CMSST CM_OK",
           "A: CMSEND c HELLO | CMSEND CM_OK",
           "A: CMRCV c 100 | CMRCV CM_OK dr=CM_COMPLETE_DATA_RECEIVED text=HELLO st=CM_SEND_RECEIVED",
           "A: CMSEND c AGAIN | CMSEND CM_OK",
           "A: CMRCV c 100 | CMRCV CM_OK text=AGAIN st=CM_SEND_RECEIVED",
           "A: CMSDT c CM_DEALLOCATE_FLUSH | CMSDT CM_OK",
           "A: CMDEAL c | CMDEAL CM_OK",
           "!file echo.log APPCTPN=ECHO",
           "!file echo.log APPCLLU=LOCAL",
           "!file echo.log SNANODE_SOCKET=$DIR/socket",
       }},
      {"QueuedAttachesInOrder",
       Steps{
           "+A cpic",
           "+B cpic",
           "B: CMSLTP QN | CMSLTP CM_OK",
           "A: CMINIT q1 | CMINIT CM_OK",
           "A: CMSTPN q1 QN | CMSTPN CM_OK",
           "A: CMALLC q1 | CMALLC CM_OK",
           "A: CMSST q1 CM_SEND_AND_FLUSH | CMSST CM_OK",
           "A: CMSEND q1 FIRST | CMSEND CM_OK",
           "A: CMINIT q2 | CMINIT CM_OK",
           "A: CMSTPN q2 QN | CMSTPN CM_OK",
           "A: CMALLC q2 | CMALLC CM_OK",
           "A: CMSST q2 CM_SEND_AND_FLUSH | CMSST CM_OK",
           "A: CMSEND q2 SECOND | CMSEND CM_OK",
           "B: CMACCP b1 | CMACCP CM_OK",
           "B: CMRCV b1 100 | CMRCV CM_OK text=FIRST",
           "B: CMACCP b2 | CMACCP CM_OK",
           "B: CMRCV b2 100 | CMRCV CM_OK text=SECOND",
       }},
      {"QueuedAttachWhileProgramIsBusy",
       // QUEUE is started only when no program has the name registered.
       Steps{
           "+A cpic",
           "+B cpic",
           "B: CMSLTP QUEUE | CMSLTP CM_OK",
           "A: CMINIT q | CMINIT CM_OK",
           "A: CMSTPN q QUEUE | CMSTPN CM_OK",
           "A: CMALLC q | CMALLC CM_OK",
           "A: CMSST q CM_SEND_AND_FLUSH | CMSST CM_OK",
           "A: CMSEND q WAITED | CMSEND CM_OK",
           "B: CMACCP b | CMACCP CM_OK",
           "B: CMRCV b 100 | CMRCV CM_OK text=WAITED",
       }},
  };
  return table;
}

class CpicScenario : public ::testing::TestWithParam<Row> {};

TEST_P(CpicScenario, Runs) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run(GetParam().steps), "");
}

INSTANTIATE_TEST_SUITE_P(Cpic, CpicScenario, ::testing::ValuesIn(rows()),
                         [](const ::testing::TestParamInfo<Row> &info) { return info.param.name; });

// Two threads of one program block in CMRCV on their own conversations at
// the same time; the partner releases the second first.
TEST(CpicThreads, TwoBlockedReceivesBothComplete) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  EXPECT_EQ(runner.run({
                "+B cpic",
                "B: CMSLTP SRV | CMSLTP CM_OK",
                "+T threads SRV",
                "B: CMACCP b1 | CMACCP CM_OK",
                "B: CMRCV b1 100 | CMRCV CM_OK text=1 st=CM_SEND_RECEIVED",
                "B: CMACCP b2 | CMACCP CM_OK",
                "B: CMRCV b2 100 | CMRCV CM_OK text=2 st=CM_SEND_RECEIVED",
                "T< allocated",
                "T~ t1 receiving || t2 receiving",
                "B: CMSST b2 CM_SEND_AND_FLUSH | CMSST CM_OK",
                "B: CMSEND b2 TWO | CMSEND CM_OK",
                "T< t2 CMRCV rc=0 len=3 data=TWO",
                "B: CMSST b1 CM_SEND_AND_FLUSH | CMSST CM_OK",
                "B: CMSEND b1 ONE | CMSEND CM_OK",
                "T< t1 CMRCV rc=0 len=3 data=ONE",
                "T< done",
            }),
            "");
}

}  // namespace
}  // namespace e2e
