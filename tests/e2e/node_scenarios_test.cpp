// The node's acceptance scenarios, run by two verb drivers (A and B) as
// separate processes against a real daemon. A has a TP from TP_STARTED;
// B has registered SRV. Unless a row says otherwise the conversation is
// mapped, sync level none, security same, and "conversation" rows start
// with A in send state and B in receive state.
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

// A and B started; A has TP T; B has SRV registered and an accept
// outstanding (tag acc).
Steps started() {
  return {"+A driver",
          "+B driver",
          "A: tp_started as=T | - TP_STARTED p=0x0000 s=0x00000000 lu=LOCAL",
          "B: register name=SRV | - REGISTER p=0x0000 s=0x00000000",
          "B: accept as=C tpas=TB async=acc | issued acc"};
}

// A allocated SRV (conversation C) and B accepted it (its C, TP TB).
Steps conversation(const std::string &options = "") {
  std::string sync = options.find("sync=1") != std::string::npos ? "1" : "0";
  std::string type = options.find("ctype=basic") != std::string::npos ? "0" : "1";
  return started() + Steps{
      "A: allocate tp=T as=C tpn=SRV " + options + " | - ALLOCATE p=0x0000 s=0x00000000",
      "A: flush c=C | - FLUSH p=0x0000",
      "B< acc RECEIVE_ALLOCATE p=0x0000 s=0x00000000 sync=" + sync + " type=" + type + " tpn=SRV",
  };
}

// Then A is in receive state and B in send state.
Steps turned(const std::string &options = "") {
  return conversation(options) + Steps{
      "A: ptr c=C type=1 | - PREPARE_TO_RECEIVE p=0x0000",
      "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0001 len=0",
  };
}

const std::vector<Row> &rows() {
  static const std::vector<Row> table = {
      {"S01_AllocateAndBufferedSendLeaveTheAcceptOutstanding",
       started() + Steps{
           "A: allocate tp=T as=C tpn=SRV | - ALLOCATE p=0x0000 s=0x00000000",
           "A: send c=C text=HELLO type=0 | - SEND_DATA p=0x0000 s=0x00000000 rts=0",
           // A round trip of B's: a completed accept would come before it.
           "B: sync | - SYNC p=0x0001",
       }},
      {"S02_DeallocateFlushDeliversAttachDataAndEnd",
       started() + Steps{
           "A: allocate tp=T as=C tpn=SRV | - ALLOCATE p=0x0000",
           "A: send c=C text=HELLO type=0 | - SEND_DATA p=0x0000",
           "B: sync | - SYNC p=0x0001",
           "A: dealloc c=C type=1 | - DEALLOCATE p=0x0000 s=0x00000000",
           "B< acc RECEIVE_ALLOCATE p=0x0000 s=0x00000000 sync=0 type=1 tpn=SRV user=$LOGIN lu=LOCAL "
           "mode= plu=NETWORK.LOCAL",
           "B: state c=C | - GET_STATE p=0x0000 state=2",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0200 len=5 text=HELLO",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0009 s=0x00000000 wr=0x0000 len=0",
           "B: state c=C | - GET_STATE p=0x0001 s=0x00000031",
       }},
      {"S03_PingPongWithStatusCombined",
       conversation() + Steps{
           "A: send c=C text=PING type=3 | - SEND_DATA p=0x0000 rts=0",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 len=4 text=PING",
           "B: state c=C | - GET_STATE p=0x0000 state=9",
           "B: send c=C text=PONG type=3 | - SEND_DATA p=0x0000",
           "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 len=4 text=PONG",
           "A: state c=C | - GET_STATE p=0x0000 state=9",
       }},
      {"S04_StatusOnItsOwnReceive",
       conversation() + Steps{
           "A: send c=C text=PING type=3 | - SEND_DATA p=0x0000",
           "B: rcv c=C rsd=0 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0200 len=4 text=PING",
           "B: rcv c=C rsd=0 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0001 len=0",
           "B: state c=C | - GET_STATE p=0x0000 state=1",
       }},
      {"S05_SendAndConfirm",
       conversation("sync=1") + Steps{
           "A: send c=C text=X type=2",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0202 len=1 text=X",
           "B: state c=C | - GET_STATE p=0x0000 state=3",
           "B: confirmed c=C | - CONFIRMED p=0x0000 s=0x00000000",
           "B: state c=C | - GET_STATE p=0x0000 state=2",
           "A< - SEND_DATA p=0x0000 s=0x00000000 rts=0",
           "A: state c=C | - GET_STATE p=0x0000 state=1",
       }},
      {"S06_DeallocateConfirm",
       conversation("sync=1") + Steps{
           "A: dealloc c=C type=0",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0004 len=0",
           "B: state c=C | - GET_STATE p=0x0000 state=5",
           "B: confirmed c=C | - CONFIRMED p=0x0000",
           "B: state c=C | - GET_STATE p=0x0001 s=0x00000031",
           "A< - DEALLOCATE p=0x0000 s=0x00000000",
           "A: state c=C | - GET_STATE p=0x0001 s=0x00000031",
       }},
      {"S07_SendErrorAnswersConfirm",
       conversation("sync=1") + Steps{
           "A: send c=C text=ABC type=0 | - SEND_DATA p=0x0000",
           "A: confirm c=C",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0202 len=3 text=ABC",
           "B: serr c=C | - SEND_ERROR p=0x0000",
           "A< - CONFIRM p=0x000E s=0x08890000",
           "A: state c=C | - GET_STATE p=0x0000 state=2",
           "B: send c=C text=WHY type=3 | - SEND_DATA p=0x0000",
           "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 len=3 text=WHY",
       }},
      {"S08_ReceiveImmediatelyInPieces",
       conversation() + Steps{
           "A: send c=C len=10 type=1 | - SEND_DATA p=0x0000",
           "B: rcvi c=C len=4 | - RECEIVE_IMMEDIATELY p=0x0000 wr=0x0400 len=4 data=61626364",
           "B: rcvi c=C len=4 | - RECEIVE_IMMEDIATELY p=0x0000 wr=0x0400 len=4 data=65666768",
           "B: rcvi c=C len=4 | - RECEIVE_IMMEDIATELY p=0x0000 wr=0x0200 len=2 data=696A",
           "B: rcvi c=C len=4 | - RECEIVE_IMMEDIATELY p=0x0014 s=0x00000000",
       }},
      {"S09_NullRecords",
       conversation() + Steps{
           "A: send c=C type=1 | - SEND_DATA p=0x0000",
           "A: send c=C type=1 | - SEND_DATA p=0x0000",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0200 len=0",
           "B: rcv c=C len=0 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0200 len=0",
       }},
      {"S10a_BasicLogicalRecords",
       conversation("ctype=basic") + Steps{
           "A: send c=C hex=0005616263000364 type=3 | - SEND_DATA p=0x0000",
           "B: rcv c=C fill=1 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0200 len=5 data=0005616263",
           "B: rcv c=C fill=1 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 len=3 data=000364",
       }},
      {"S10b_BasicBufferFill",
       conversation("ctype=basic") + Steps{
           "A: send c=C hex=0005616263000364 type=3 | - SEND_DATA p=0x0000",
           "B: rcv c=C fill=0 | - RECEIVE_AND_WAIT p=0x0000 wr=0x0101 len=8 data=0005616263000364",
       }},
      {"S11_BasicInvalidRecordLength",
       conversation("ctype=basic") + Steps{
           "A: send c=C hex=000141 type=1 | - SEND_DATA p=0x0001 s=0x0000015B",
           "A: state c=C | - GET_STATE p=0x0000 state=1",
           "A: flush c=C | - FLUSH p=0x0000",
           "B: rcvi c=C | - RECEIVE_IMMEDIATELY p=0x0014",
       }},
      {"S12_BasicIncompleteRecord",
       conversation("ctype=basic") + Steps{
           "A: send c=C hex=000A61 type=0 | - SEND_DATA p=0x0000",
           "A: ptr c=C type=1 | - PREPARE_TO_RECEIVE p=0x0002 s=0x00000021",
           "A: send c=C hex=62636465666768 type=0 | - SEND_DATA p=0x0000",
           "A: ptr c=C type=1 | - PREPARE_TO_RECEIVE p=0x0000",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 len=10 data=000A6162636465666768",
       }},
      {"S13_BasicSendErrorTruncates",
       conversation("ctype=basic") + Steps{
           "A: send c=C hex=00106162 type=1 | - SEND_DATA p=0x0000",
           "A: serr c=C | - SEND_ERROR p=0x0000",
           "A: send c=C hex=00037A type=3 | - SEND_DATA p=0x0000",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0400 len=4 data=00106162",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x000D s=0x08890001 wr=0x0000 len=0",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 len=3 data=00037A",
       }},
      {"S14_ReceiveImmediatelyWithNothingSent",
       conversation() + Steps{
           "B: rcvi c=C | - RECEIVE_IMMEDIATELY p=0x0014 s=0x00000000",
           "B: state c=C | - GET_STATE p=0x0000 state=2",
       }},
      {"S15_RequestToSend",
       conversation() + Steps{
           "B: rts c=C | - REQUEST_TO_SEND p=0x0000",
           "A: trts c=C | - TEST_RTS p=0x0000",
           "A: trts c=C | - TEST_RTS p=0x0014",
           "A: send c=C text=a type=0 | - SEND_DATA p=0x0000 rts=0",
           "B: rts c=C | - REQUEST_TO_SEND p=0x0000",
           "A: send c=C text=b type=0 | - SEND_DATA p=0x0000 rts=1",
           "A: trts c=C | - TEST_RTS p=0x0014",
       }},
      {"S16_UnknownTpNameIsReportedLater",
       Steps{
           "+A driver",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=N1 tpn=NOSUCH | - ALLOCATE p=0x0000",
           "A: flush c=N1 | - FLUSH p=0x0000",
           "A: send c=N1 text=x type=0 | - SEND_DATA p=0x0003 s=0x10086021",
           "A: state c=N1 | - GET_STATE p=0x0001 s=0x00000031",
           "A: allocate tp=T as=N2 tpn=NOSUCH | - ALLOCATE p=0x0000",
           "A: dealloc c=N2 type=1 | - DEALLOCATE p=0x0000",
           "A: allocate tp=T as=N3 tpn=NOSUCH sync=1 | - ALLOCATE p=0x0000",
           "A: confirm c=N3 | - CONFIRM p=0x0003 s=0x10086021",
       }},
      {"S17_ConversationTypeMismatch",
       Steps{
           "+A driver",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=M tpn=MONLY ctype=basic | - ALLOCATE p=0x0000",
           "A: rcv c=M | - RECEIVE_AND_WAIT p=0x0003 s=0x10086034",
       }},
      {"S18_SyncLevelNotSupported",
       Steps{
           "+A driver",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=M tpn=NCONF sync=1 | - ALLOCATE p=0x0000",
           "A: rcv c=M | - RECEIVE_AND_WAIT p=0x0003 s=0x10086041",
       }},
      {"S19a_SecurityProgram",
       started() + Steps{
           "A: allocate tp=T as=W tpn=SRV sec=2 user=ALICE pw=WRONG | - ALLOCATE p=0x0000",
           "A: rcv c=W | - RECEIVE_AND_WAIT p=0x0003 s=0x080F6051",
           "B: sync | - SYNC p=0x0001",
           "A: allocate tp=T as=V tpn=SRV sec=2 user=ALICE pw=SECRET1 | - ALLOCATE p=0x0000",
           "A: flush c=V | - FLUSH p=0x0000",
           "B< acc RECEIVE_ALLOCATE p=0x0000 tpn=SRV user=ALICE",
       }},
      {"S19b_SecurityProgramStrong",
       started() + Steps{
           "A: allocate tp=T as=W tpn=SRV sec=5 user=ALICE pw=NOTIT | - ALLOCATE p=0x0000",
           "A: rcv c=W | - RECEIVE_AND_WAIT p=0x0003 s=0x080F6051",
           "A: allocate tp=T as=U tpn=SRV sec=2 user=MALLORY pw=SECRET1 | - ALLOCATE p=0x0000",
           "A: rcv c=U | - RECEIVE_AND_WAIT p=0x0003 s=0x080F6051",
           "A: allocate tp=T as=V tpn=SRV sec=5 user=ALICE pw=SECRET1 | - ALLOCATE p=0x0000",
           "A: flush c=V | - FLUSH p=0x0000",
           "B< acc RECEIVE_ALLOCATE p=0x0000 tpn=SRV user=ALICE",
       }},
      {"S20a_BasicAbendWithLogData",
       turned("ctype=basic") + Steps{
           "A: dealloc c=C type=2 log=TROUBLE42 | - DEALLOCATE p=0x0000",
           "B: send c=C hex=000341 type=0 | - SEND_DATA p=0x0006 s=0x08640000",
           "!log TROUBLE42 || 54524F55424C453432",
       }},
      {"S20b_MappedAbend",
       turned() + Steps{
           "A: dealloc c=C type=2 | - DEALLOCATE p=0x0000",
           "B: send c=C text=x type=0 | - SEND_DATA p=0x0005 s=0x08640000",
       }},
      {"S21a_PartnerTpEndedMapped",
       turned() + Steps{
           "A: rcv c=C async=r | issued r",
           "B: tp_ended tp=TB type=1 | - TP_ENDED p=0x0000",
           "A< r RECEIVE_AND_WAIT p=0x0005 s=0x08640001",
       }},
      {"S21b_PartnerTpEndedBasic",
       turned("ctype=basic") + Steps{
           "A: rcv c=C async=r | issued r",
           "B: tp_ended tp=TB type=1 | - TP_ENDED p=0x0000",
           "A< r RECEIVE_AND_WAIT p=0x0007 s=0x08640001",
       }},
      {"S21c_PartnerKilledMapped",
       turned() + Steps{
           "A: rcv c=C async=r | issued r",
           "!kill B",
           "A< r RECEIVE_AND_WAIT p=0x0005 s=0x08640001",
       }},
      {"S21d_PartnerKilledBasic",
       turned("ctype=basic") + Steps{
           "A: rcv c=C async=r | issued r",
           "!kill B",
           "A< r RECEIVE_AND_WAIT p=0x0007 s=0x08640001",
       }},
      {"S22_CancelWithReceiveOutstanding",
       turned() + Steps{
           "A: rcv c=C async=r | issued r",
           "A: cancel c=C",
           "A< r RECEIVE_AND_WAIT p=0x0021",
           "A< - CANCEL p=0x0000 s=0x00000000",
           "B: send c=C text=z type=0 | - SEND_DATA p=0x0005 s=0x08640000",
       }},
      {"S23_CancelReceiveAllocateByCorrelator",
       Steps{
           "+B driver",
           "B: register name=SRV | - REGISTER p=0x0000",
           "B: accept as=C corr=0x1234 async=acc | issued acc",
           "B: cancel corr=0x1234",
           "B< acc RECEIVE_ALLOCATE p=0x0021",
           "B< - CANCEL p=0x0000",
       }},
      {"S24_TpEndedCompletesOutstandingVerbFirst",
       turned() + Steps{
           "A: rcv c=C async=r | issued r",
           "A: tp_ended tp=T type=1",
           "A< r RECEIVE_AND_WAIT p=0x0021",
           "A< - TP_ENDED p=0x0000",
           "A: sync | - SYNC p=0x0001",
           "B: send c=C text=z type=0 | - SEND_DATA p=0x0005 s=0x08640001",
       }},
      {"S25_DaemonLoss",
       turned() + Steps{
           "A: rcv c=C async=r | issued r",
           "!killdaemon",
           "A< r RECEIVE_AND_WAIT p=0xF003",
           "A< event 0x8001",
           "B< event 0x8001",
           "A: sync | - SYNC p=0xF002",
           "!restart",
           "A: tp_started as=T2 | - TP_STARTED p=0x0000 lu=LOCAL",
           "A: state c=C | - GET_STATE p=0x0001 s=0x000000F1",
       }},
      {"S26_AttachManagerStartsEcho",
       Steps{
           "+A driver",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=E tpn=ECHO | - ALLOCATE p=0x0000",
           "A: send c=E text=E type=3 | - SEND_DATA p=0x0000",
           "A: rcv c=E | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 len=1 text=E",
           "!file echo.log APPCTPN=ECHO",
           "!file echo.log APPCLLU=LOCAL",
           "A: dealloc c=E type=1 | - DEALLOCATE p=0x0000",
       }},
      {"S27_ProgramMissing",
       Steps{
           "+A driver",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=X tpn=BAD | - ALLOCATE p=0x0000",
           "A: rcv c=X | - RECEIVE_AND_WAIT p=0x0003 s=0x084C0000",
       }},
      {"S29_QueuedAttachTakenAtOnce",
       Steps{
           "+A driver",
           "+B driver",
           "B: register name=QN | - REGISTER p=0x0000",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=Q tpn=QN | - ALLOCATE p=0x0000",
           "A: send c=Q text=QUEUED type=1 | - SEND_DATA p=0x0000",
           "B: accept as=C | - RECEIVE_ALLOCATE p=0x0000 tpn=QN",
           "B: rcv c=C | - RECEIVE_AND_WAIT p=0x0000 wr=0x0200 text=QUEUED",
       }},
      {"S29b_QueuedAttachRejectedWhenNameWithdrawn",
       Steps{
           "+A driver",
           "+B driver",
           "B: register name=QN | - REGISTER p=0x0000",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=Q tpn=QN | - ALLOCATE p=0x0000",
           "A: rcv c=Q async=r | issued r",
           // A's round trip: the attach is queued before the withdrawal.
           "A: sync | - SYNC p=0x0001",
           "B: withdraw name=QN | - WITHDRAW p=0x0000",
           "A< r RECEIVE_AND_WAIT p=0x0003 s=0x084B6031",
           "B: withdraw name=QN | - WITHDRAW p=0x0001 s=0x00000105",
       }},
      {"S30_SessionLimit",
       Steps{
           "+A driver",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=S1 tpn=SRV mode=ONE rc=1 | - ALLOCATE p=0x0000",
           "A: allocate tp=T as=S2 tpn=SRV mode=ONE rc=1 | - ALLOCATE p=0x0014",
           "A: allocate tp=T as=S3 tpn=SRV mode=ONE rc=0 async=w | issued w",
           "A: dealloc c=S1 type=1",
           "A~ - DEALLOCATE p=0x0000 || w ALLOCATE p=0x0000",
       }},
      {"S31a_OperatorQuerySideInformation",
       Steps{
           "+A driver",
           "A: nof_open as=H kind=2 | - NOF_OPEN p=0x0000 s=0x00000000 handle=set",
           "A: nof_query h=H name=SIDE1 opt=4 | - NOF_QUERY p=0x0000 n=1 e0.len=212 e0.name=SIDE1 "
           "e0.plu=NETWORK.LOCAL e0.tptype=0 e0.tpn=SRV e0.mode=#INTER e0.sec=2 e0.user=ALICE "
           "e0.pw=SECRET1 e0.lu=LOCAL e0.layout=ok",
           "A: nof_query h=H name=UNKNOWN opt=4 | - NOF_QUERY p=0x0002 s=0x00001058",
           "A: nof_close h=H | - NOF_CLOSE p=0x0000",
       }},
      {"S31b_OperatorListOptions",
       Steps{
           "+A driver",
           "A: nof_open as=H kind=2 | - NOF_OPEN p=0x0000",
           "A: nof_query h=H opt=1 want=5 size=1060 | - NOF_QUERY p=0x0000 n=3 e0.name=SIDE1 "
           "e1.name=SIDE2 e2.name=SRVDEST",
           "A: nof_query h=H name=SIDE2 opt=2 want=1 | - NOF_QUERY p=0x0000 n=1 e0.name=SIDE2 "
           "e0.plu=LOCAL e0.tptype=1 e0.tpn=06F1F0F0 e0.mode=#BATCH e0.sec=0 e0.layout=ok",
           "A: nof_query h=H name=SIDE2 opt=3 want=5 size=1060 | - NOF_QUERY p=0x0000 n=1 "
           "e0.name=SRVDEST",
           "A: nof_query h=H name=SRVDEST opt=3 want=5 size=1060 | - NOF_QUERY p=0x0000 n=0",
           "A: nof_close h=H | - NOF_CLOSE p=0x0000",
           "A: nof_query h=H name=SIDE1 opt=4 | - NOF_QUERY p=0x0001 s=0x00000002",
       }},
      // Beyond the acceptance table: refusals, attach routing, ending a TP
      // softly and hard, pacing.
      {"X01_ParameterAndStateChecks",
       Steps{
           "+A driver",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: tp_started as=U lu=NOSUCH | - TP_STARTED p=0x0001 s=0x00000104",
           "A: allocate tp=T as=X tpn=SRV lu=NOSUCH | - ALLOCATE p=0x0001 s=0x00000017",
           "A: allocate tp=T as=X tpn=SRV fqlu=BAD..NAME | - ALLOCATE p=0x0001 s=0x00000017",
           "A: allocate tp=T as=X tpn=SRV mode=NOMODE | - ALLOCATE p=0x0001 s=0x00000018",
           "A: allocate tp=T as=X tpn=SRV mode=SNASVCMG | - ALLOCATE p=0x0001 s=0x00000018",
           "A: allocate tp=T as=X tpn=SRV sync=2 | - ALLOCATE p=0x0001 s=0x00000102",
           "A: allocate tp=T as=X tpn=SRV sec=3 | - ALLOCATE p=0x0001 s=0x00000102",
           "A: allocate tp=T as=X tpn=SRV pip=4 | - ALLOCATE p=0x0001 s=0x00000102",
           "A: allocate tp=T as=X tpn=SRV format=0 | - ALLOCATE p=0x0001 s=0x00000101",
           "A: allocate tpid=0102030405060708 as=X tpn=SRV | - ALLOCATE p=0x0001 s=0x000000F1",
           "A: register name= | - REGISTER p=0x0001 s=0x00000105",
           "A: withdraw name=NOTREG | - WITHDRAW p=0x0001 s=0x00000105",
           "A: accept as=Z | - RECEIVE_ALLOCATE p=0x0002 s=0x00000024",
           "A: allocate tp=T as=C tpn=SRV | - ALLOCATE p=0x0000",
           "A: send c=C text=x opext=0 | - SEND_DATA p=0x0001 s=0x00000103",
           "A: send c=C text=x type=8 | - SEND_DATA p=0x0001 s=0x00000102",
           "A: rcv c=C len=40000 | - RECEIVE_AND_WAIT p=0x0001 s=0x00000102",
           "A: confirm c=C | - CONFIRM p=0x0002 s=0x00000022",
           "A: send c=C text=x type=2 | - SEND_DATA p=0x0002 s=0x00000022",
           "A: confirmed c=C | - CONFIRMED p=0x0002 s=0x00000020",
           "A: state c=C conv=999999 | - GET_STATE p=0x0001 s=0x00000031",
           "A: state c=C | - GET_STATE p=0x0000 state=1",
           "A: tp_ended tpid=0102030405060708 | - TP_ENDED p=0x0001 s=0x000000F1",
       }},
      {"X02_WithdrawingTheLastNameEndsOutstandingAccepts",
       Steps{
           "+B driver",
           "B: register name=SRV | - REGISTER p=0x0000",
           "B: register name=SRV | - REGISTER p=0x0000",
           "B: accept as=C async=a1 | issued a1",
           "B: accept as=D async=a2 | issued a2",
           "B: withdraw name=SRV",
           "B~ a1 RECEIVE_ALLOCATE p=0x0002 s=0x00000024 || a2 RECEIVE_ALLOCATE p=0x0002 s=0x00000024 || "
           "- WITHDRAW p=0x0000",
       }},
      {"X03_ProgramExitsWithoutAccepting",
       Steps{
           "+A driver",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=X tpn=EXITS | - ALLOCATE p=0x0000",
           "A: rcv c=X | - RECEIVE_AND_WAIT p=0x0003 s=0x084C0000",
       }},
      {"X04_DefinitionRequiresSecurity",
       Steps{
           "+A driver",
           "A: tp_started as=T | - TP_STARTED p=0x0000",
           "A: allocate tp=T as=N tpn=SECURE sec=0 | - ALLOCATE p=0x0000",
           "A: rcv c=N | - RECEIVE_AND_WAIT p=0x0003 s=0x080F6051",
           "A: allocate tp=T as=P tpn=SECURE sec=2 user=ALICE pw=SECRET1 | - ALLOCATE p=0x0000",
           "A: send c=P text=S type=3 | - SEND_DATA p=0x0000",
           "A: rcv c=P | - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=S",
       }},
      {"X05_SoftTpEndFlushesFirst",
       turned() + Steps{
           "B: send c=C text=LAST type=0 | - SEND_DATA p=0x0000",
           "A: rcv c=C async=r | issued r",
           "B: tp_ended tp=TB type=0 | - TP_ENDED p=0x0000",
           "A< r RECEIVE_AND_WAIT p=0x0000 wr=0x0200 text=LAST",
           "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0005 s=0x08640001",
       }},
      {"X06_HardTpEndDiscardsTheSendBuffer",
       turned() + Steps{
           "B: send c=C text=LAST type=0 | - SEND_DATA p=0x0000",
           "B: tp_ended tp=TB type=1 | - TP_ENDED p=0x0000",
           "A: rcv c=C | - RECEIVE_AND_WAIT p=0x0005 s=0x08640001 wr=0x0000 len=0",
       }},
      {"X07_AsynchronousTpEndedAfterItsVerbs",
       turned() + Steps{
           "A: rcv c=C async=r | issued r",
           "A: tp_ended tp=T type=1 async=te",
           "A~ issued te || r RECEIVE_AND_WAIT p=0x0021",
           "A< te TP_ENDED p=0x0000",
           "A: allocate tp=T as=Z tpn=SRV | - ALLOCATE p=0x0001 s=0x000000F1",
           "B: send c=C text=z type=0 | - SEND_DATA p=0x0005 s=0x08640001",
       }},
      {"X09_BlockingVerbFromACompletionRoutine",
       turned() + Steps{
           "A: rcv c=C async=r then=rcv,c:C",
           "A< issued r",
           "B: send c=C text=ONE type=1 | - SEND_DATA p=0x0000",
           "A< r RECEIVE_AND_WAIT p=0x0000 wr=0x0200 text=ONE",
           // The routine now waits in a blocking receive on the runtime's
           // thread; other replies still reach the program.
           "A: sync | - SYNC p=0x0001",
           "B: send c=C text=TWO type=3 | - SEND_DATA p=0x0000",
           "A< - RECEIVE_AND_WAIT p=0x0000 wr=0x0201 text=TWO",
           "A: state c=C | - GET_STATE p=0x0000 state=9",
       }},
  };
  return table;
}

class NodeScenario : public ::testing::TestWithParam<Row> {};

TEST_P(NodeScenario, Runs) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  std::string failure = runner.run(GetParam().steps);
  EXPECT_EQ(failure, "");
}

INSTANTIATE_TEST_SUITE_P(Section, NodeScenario, ::testing::ValuesIn(rows()),
                         [](const ::testing::TestParamInfo<Row> &info) { return info.param.name; });

// Sends A's "sync" and reads A's lines up to its result. Returns true if
// the completion of `tag` (OK) came before it; sets *why on anything else.
bool completed_before_sync(Process &a, const std::string &tag, std::string *why) {
  if (!a.send("sync")) {
    *why = "cannot write to A";
    return false;
  }
  bool completed = false;
  for (;;) {
    auto line = a.read_line();
    if (!line) {
      *why = "A: no SYNC result";
      return false;
    }
    if (line_matches(*line, "- SYNC p=0x0001")) return completed;
    if (line_matches(*line, tag + " SEND_DATA p=0x0000 s=0x00000000")) {
      completed = true;
      continue;
    }
    *why = "A: unexpected \"" + *line + "\"";
    return completed;
  }
}

// Pacing with the smallest window (32768) and records of 20000 bytes: the
// first flush completes; a later one is held while the partner has a
// window's worth unreceived, and is released by the receive that brings
// the unreceived amount below the window.
TEST(NodePacing, X08_FlushHeldUntilThePartnerReceives) {
  Daemon daemon(E2E_DAEMON);
  ASSERT_EQ(start_test_node(daemon), "");
  ScenarioRunner runner(daemon);
  ASSERT_EQ(runner.run(conversation("mode=PACED"), false), "");
  Process &a = *runner.program("A");
  Process &b = *runner.program("B");
  std::string why;
  int held = 0;
  std::string tag;
  for (int i = 1; i <= 3 && held == 0; ++i) {
    tag = "s" + std::to_string(i);
    ASSERT_TRUE(a.send("send c=C len=20000 type=1 async=" + tag));
    ASSERT_TRUE(a.expect("issued " + tag, &why)) << why << runner.transcripts();
    why.clear();
    bool done = completed_before_sync(a, tag, &why);
    ASSERT_EQ(why, "") << runner.transcripts();
    if (!done) held = i;
  }
  // 20000 unreceived is below the window; 60000 is not.
  ASSERT_NE(held, 0) << "no flush held with 60000 bytes unreceived\n" << runner.transcripts();
  ASSERT_GE(held, 2) << "the first flush was held\n" << runner.transcripts();
  for (int k = 1; k <= held - 1; ++k) {
    ASSERT_TRUE(b.send("rcv c=C len=20000"));
    ASSERT_TRUE(b.expect("- RECEIVE_AND_WAIT p=0x0000 wr=0x0200 len=20000", &why)) << why;
    bool done = completed_before_sync(a, tag, &why);
    ASSERT_EQ(why, "") << runner.transcripts();
    // Released exactly when one record is left unreceived.
    EXPECT_EQ(done, k == held - 1) << "after " << k << " receives\n" << runner.transcripts();
  }
  EXPECT_EQ(runner.finish(), "");
}

}  // namespace
}  // namespace e2e
