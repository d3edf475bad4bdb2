#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (tests/fuzz/corpus/<target>/).

Each seed is a small meaningful input in the layout its target reads
(fuzz_input.h: little-endian numbers, u16-length-prefixed blocks). Run it
again after changing a target's input layout; crash inputs that were added
by hand (named crash-*) are kept.
"""
import os
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")


def u8(v): return struct.pack("<B", v & 0xFF)
def u16(v): return struct.pack("<H", v & 0xFFFF)
def u32(v): return struct.pack("<I", v & 0xFFFFFFFF)
def i32(v): return struct.pack("<i", v)
def u64(v): return struct.pack("<Q", v & 0xFFFFFFFFFFFFFFFF)
def block(b): return u16(len(b)) + b
def hexb(s): return bytes.fromhex(s.replace(" ", ""))


EBCDIC = {" ": 0x40, ".": 0x4B, "#": 0x7B, "@": 0x7C, "$": 0x5B}
for i, c in enumerate("ABCDEFGHI"): EBCDIC[c] = 0xC1 + i
for i, c in enumerate("JKLMNOPQR"): EBCDIC[c] = 0xD1 + i
for i, c in enumerate("STUVWXYZ"): EBCDIC[c] = 0xE2 + i
for i, c in enumerate("0123456789"): EBCDIC[c] = 0xF0 + i


def ebcdic(text, width):
    return bytes(EBCDIC[c] for c in text.ljust(width))


def ascii_field(text, width, pad=b" "):
    return text.encode().ljust(width, pad)


def write(target, name, data):
    d = os.path.join(CORPUS, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


def clear(target):
    d = os.path.join(CORPUS, target)
    if os.path.isdir(d):
        for n in os.listdir(d):
            if not n.startswith("crash-"):
                os.unlink(os.path.join(d, n))


# ---- fuzz_daemon_requests -----------------------------------------------------
KIND = {"hello": 1, "verb": 3, "nof": 5, "operator": 7, "verb_reply": 4}


def frame(kind, tag, body):
    return u32(16 + len(body)) + u16(KIND[kind]) + u16(0) + u64(tag) + body


def hello(flags=0, version=1, magic=0x57414E53):
    return frame("hello", 1, u32(magic) + u16(version) + u16(64) + u32(4242) + u32(flags))


def verb(tag, opcode, **f):
    b = bytearray(192)
    struct.pack_into("<HBB", b, 0, opcode, f.get("opext", 1), f.get("format", 0))
    b[4:12] = f.get("tp_id", bytes(8))
    struct.pack_into("<I", b, 12, f.get("conv_id", 0))
    for off, key in ((16, "sync_level"), (17, "return_control"), (18, "security"), (19, "type"),
                     (20, "locks"), (21, "rswd"), (22, "fill"), (23, "send_type"),
                     (24, "error_type"), (25, "direction")):
        b[off] = f.get(key, 0)
    data = f.get("data", b"")
    struct.pack_into("<HHII", b, 26, f.get("max_length", 0), f.get("pip_length", 0),
                     f.get("data_length", len(data)), f.get("correlator", 0))
    b[40:48] = f.get("partner_lu_alias", bytes(8))
    b[48:56] = f.get("mode_name", bytes(8))
    b[56:120] = f.get("tp_name", bytes(64))
    b[120:130] = f.get("password", bytes(10))
    b[130:140] = f.get("user_id", bytes(10))
    b[140:157] = f.get("partner_lu_name", bytes(17))
    b[157:165] = f.get("local_lu_alias", bytes(8))
    return frame("verb", tag, bytes(b) + data)


def nof(tag, opcode, **f):
    b = bytearray(32)
    struct.pack_into("<HBBIIHB", b, 0, opcode, f.get("access", 0), f.get("format", 1),
                     f.get("handle", 0), f.get("buffer_size", 0), f.get("entries", 0),
                     f.get("list_option", 0))
    b[16:24] = f.get("name", b" " * 8)
    return frame("nof", tag, bytes(b))


def operator(tag, text):
    return frame("operator", tag, text.encode())


def to(conn, data, action=0):
    """Bytes for a connection (action 0-5 all mean bytes)."""
    return u8((action << 2) | conn) + block(data)


def reconnect(conn): return u8((6 << 2) | conn)
def program(index, kind): return u8(7 << 2) + u8(index) + u8(kind)
def reload(): return u8(0x80 | (7 << 2))


TP1 = bytes([0, 0, 0, 1, 0, 0, 0, 1])
TP2 = bytes([0, 0, 0, 1, 0, 0, 0, 2])


def daemon_seeds():
    t = "fuzz_daemon_requests"
    clear(t)
    started = verb(1, 0x14, local_lu_alias=ascii_field("LOCAL", 8), tp_name=ebcdic("CLIENT", 64))
    alloc = verb(2, 0x0001, format=1, opext=1, tp_id=TP1, partner_lu_alias=ascii_field("LOCAL", 8),
                 mode_name=ebcdic("#INTER", 8), tp_name=ebcdic("ECHO", 64))
    # One program allocates to ECHO on its own LU; the started program
    # takes the attach; data both ways, then both end.
    write(t, "allocate_echo_conversation",
          to(0, hello() + started + alloc)
          + program(0, 0)
          + to(1, hello() + verb(1, 0x14, local_lu_alias=ascii_field("LOCAL", 8), tp_name=ebcdic("ECHO", 64))
               + verb(2, 0xF100, format=1, tp_id=TP2, tp_name=ebcdic("ECHO", 64), correlator=7))
          + to(0, verb(3, 0x000F, tp_id=TP1, conv_id=1, data=b"hello", send_type=0)
               + verb(4, 0x000B, tp_id=TP1, conv_id=1, max_length=100))
          + to(1, verb(3, 0x000B, tp_id=TP2, conv_id=2, max_length=100)
               + verb(4, 0x000F, tp_id=TP2, conv_id=2, data=b"world")
               + verb(5, 0x0005, tp_id=TP2, conv_id=2, type=0))
          + to(0, verb(5, 0x0013, tp_id=TP1, type=1)))
    # The same stream cut into small pieces.
    stream = hello() + started + alloc + verb(3, 0x0009, tp_id=TP1, conv_id=1)
    cut = b"".join(to(0, stream[i:i + 7]) for i in range(0, len(stream), 7))
    write(t, "stream_cut_in_pieces", cut)
    # A partner on another node (no link), a mode with a session limit and
    # security, and a register/withdraw of a local name.
    write(t, "remote_partner_and_security",
          to(0, hello() + started
             + verb(2, 0x0001, format=1, tp_id=TP1, partner_lu_alias=ascii_field("REMOTE", 8),
                    mode_name=ebcdic("ONE", 8), tp_name=ebcdic("ECHO", 64))
             + verb(3, 0x0001, format=1, tp_id=TP1, partner_lu_alias=bytes(8),
                    partner_lu_name=ebcdic("NETWORK.OTHER", 17), mode_name=ebcdic("#BATCH", 8),
                    tp_name=ebcdic("SECURE", 64), security=2, user_id=ebcdic("USER1", 10),
                    password=ebcdic("SECRET", 10))
             + verb(4, 0xF101, tp_id=TP1, tp_name=ebcdic("SINGLE", 64))
             + verb(5, 0xF102, tp_id=TP1, tp_name=ebcdic("SINGLE", 64))
             + verb(6, 0x0072, tp_id=TP1, conv_id=1))
          + reload() + program(0, 1) + program(0, 2))
    # The operator's commands.
    write(t, "operator_commands",
          to(2, hello(flags=1)
             + operator(1, '{"command":"status"}')
             + operator(2, '{"command":"sideinfo"}')
             + operator(3, '{"command":"trace","api":true,"file":"/tmp/x"}')
             + operator(4, '{"command":"nonsense"}')
             + operator(5, 'not json')
             + operator(6, '{"command":"sideinfo_define","entry":{"sym_dest_name":"NEWSYM",'
                           '"partner_lu":"LOCAL","mode":"#INTER","tp_name":"ECHO","security":"same"}}')
             + operator(7, '{"command":"sideinfo_delete","sym_dest_name":"ECHOSYM"}')
             + operator(8, '{"command":"sideinfo_define","entry":{"sym_dest_name":"BAD NAME!"}}')
             + operator(9, '{"command":"stop"}'))
          + reload()
          + to(0, hello() + nof(1, 0xF004, access=1)
               + nof(2, 0x2121, handle=1, buffer_size=212 * 8, entries=8, list_option=1)))
    # Side information through the node-operator records.
    write(t, "side_info_records",
          to(0, hello()
             + nof(1, 0xF004, access=1)
             + nof(2, 0x2121, handle=1, buffer_size=212 * 4, entries=4, list_option=1)
             + nof(3, 0x2121, handle=1, buffer_size=212, entries=1, list_option=4,
                   name=b"ECHOSYM ")
             + nof(4, 0x2121, handle=1, buffer_size=212 * 2, entries=2, list_option=3,
                   name=b"ECHOSYM ")
             + nof(5, 0xF005, handle=1)))
    # Refused streams: a verb before HELLO, a wrong version, a short body.
    write(t, "malformed_streams",
          to(0, alloc) + to(1, hello(version=9)) + to(2, hello()[:20])
          + to(0, hello() + frame("verb", 9, bytes(10))) + to(1, hello() + hello())
          + to(2, hello() + frame("verb_reply", 1, bytes(144))))


# ---- fuzz_cpic_calls ------------------------------------------------------------
CALL = {"cmsct": 0, "cmsdt": 1, "cmsed": 2, "cmsf": 3, "cmsptr": 4, "cmsrt": 5, "cmsrc": 6,
        "cmsst": 7, "cmssl": 8, "cmspm": 9, "cmscst": 10, "xcscst": 11,
        "cmsld": 12, "cmsmn": 13, "cmspln": 14, "cmstpn": 15, "cmslln": 16, "cmscsu": 17,
        "xcscsu": 18, "cmscsp": 19, "xcscsp": 20,
        "cmesl": 21, "cmect": 22, "cmecs": 23, "cmecst": 24, "xcecst": 25, "cmembs": 26,
        "cmemn": 27, "cmepln": 28, "cmelln": 29, "cmetpn": 30, "cmecsu": 31, "xcecsu": 32,
        "cmesui": 33, "cmectx": 34, "cmsctx": 35, "cminit": 36, "cminic": 37, "cmaccp": 38,
        "cmacci": 39, "cmallc": 40, "cmdeal": 41, "cmterm": 42, "cmsend": 43, "cmrcv": 44,
        "cmcfm": 45, "cmcfmd": 46, "cmflus": 47, "cmptr": 48, "cmrts": 49, "cmserr": 50,
        "cmtrts": 51, "cmwait": 52, "cmchck": 53, "cmcanc": 54, "cmcnvo": 55, "cmcnvi": 56,
        "xcmssi": 57, "xcmesi": 58, "xcmdsi": 59, "cmsltp": 60, "cmrltp": 61, "verstamp": 62}
OPCODE_INDEX = {"allocate": 0, "confirm": 1, "confirmed": 2, "deallocate": 3, "flush": 4,
                "get_state": 5, "prepare_to_receive": 6, "receive_and_wait": 7,
                "receive_immediately": 8, "request_to_send": 9, "send_data": 10,
                "send_error": 11, "test_rts": 12, "tp_ended": 13, "tp_started": 14,
                "cancel": 15, "receive_allocate": 16, "register": 17, "withdraw": 18}
PRIMARY_INDEX = {0x0000: 0, 0x0001: 1, 0x0002: 2, 0x0003: 3, 0x0009: 8, 0x000F: 12,
                 0x0021: 18}

CONV0 = u8(0)   # the first conversation ID a call handed out (or zeros)
CONV1 = u8(1)


def c(name): return u8(CALL[name])
def small(n): return u8(0) + u8(n)             # pick_length: 0..69
def length32(n): return u8(3) + i32(n)        # pick_length: any value
def value(v): return u8(v + 1)                # pick_value: -1 .. 6
def name_arg(text, n=None):
    b = text.encode()
    return length32(len(b) if n is None else n) + block(b)


def script(opcode, primary=0, secondary=0, async_=False, outputs=None):
    how = (8 if async_ else 0) | (16 if outputs is not None else 0)
    s = u8(192) + u8(how) + u8(OPCODE_INDEX[opcode]) + u8(PRIMARY_INDEX[primary]) + u8(0)
    if outputs is not None:
        s += block(outputs)
    return s


def receive_outputs(what, data, rts=0):
    return u16(what) + u8(rts) + u16(len(data)) + data


def cpic_seeds():
    t = "fuzz_cpic_calls"
    clear(t)
    node_side_info = u8(192 + 14) + u8(1) + u8(0) + block(b"") + u8(0) + value(0)
    allocated = node_side_info + c("cminit") + u8(1) + c("cmallc") + CONV0
    write(t, "blocking_send_receive_deallocate",
          allocated
          + c("cmsend") + CONV0 + small(5) + block(b"hello")
          + script("receive_and_wait", outputs=receive_outputs(1, b"world"))
          + c("cmrcv") + CONV0 + small(10)
          + c("cmcfm") + CONV0 + c("cmflus") + CONV0 + c("cmptr") + CONV0
          + c("cmdeal") + CONV0)
    write(t, "nonblocking_receive_then_wait",
          allocated + c("cmspm") + CONV0 + value(1)
          + script("receive_and_wait", async_=True, outputs=receive_outputs(2, b"data!"))
          + c("cmrcv") + CONV0 + small(32)
          + c("cmchck") + c("cmwait") + u8(0)
          + script("send_data", async_=True, outputs=u8(1))
          + c("cmsend") + CONV0 + small(3) + block(b"abc")
          + c("cmcanc") + CONV0 + u8(0)
          + c("cmwait") + u8(0))
    write(t, "characteristics_traced",
          u8(192 + 17) + u8(1) + c("cminit") + u8(0)
          + c("cmsct") + CONV0 + value(0) + c("cmssl") + CONV0 + value(1)
          + c("cmsdt") + CONV0 + value(2) + c("cmsst") + CONV0 + value(3)
          + c("cmsmn") + CONV0 + name_arg("#BATCH") + c("cmspln") + CONV0 + name_arg("NETA.LUB")
          + c("cmstpn") + CONV0 + name_arg("ECHO") + c("cmslln") + CONV0 + name_arg("OTHER")
          + c("cmscst") + CONV0 + value(2) + c("cmscsu") + CONV0 + name_arg("USER1")
          + c("cmscsp") + CONV0 + name_arg("SECRET") + c("cmsld") + CONV0 + name_arg("log", 3)
          + c("cmemn") + CONV0 + c("cmepln") + CONV0 + c("cmelln") + CONV0 + c("cmetpn") + CONV0
          + c("cmecsu") + CONV0 + c("cmesui") + CONV0 + c("cmecst") + CONV0
          + c("cmesl") + CONV0 + c("cmect") + CONV0 + c("cmecs") + CONV0 + c("cmembs")
          + c("cmsmn") + CONV0 + length32(-1) + block(b"")
          + c("cmstpn") + CONV0 + length32(65) + block(b"T" * 65)
          + c("cmsend") + CONV0 + length32(32768) + block(b"")
          + c("cmdeal") + u8(250) + b"\x01\x02\x03\x04\x05\x06\x07\x08"
          + c("verstamp"))
    entry = (b"MYSYM   " + ascii_field("NETWORK.LOCAL", 17) + bytes(3) + i32(0)
             + ascii_field("ECHO", 64) + ascii_field("#INTER", 8) + i32(0)
             + ascii_field("", 8) + ascii_field("", 8))
    write(t, "side_info_and_local_names",
          c("xcmssi") + value(0) + u8(1) + block(entry)
          + c("xcmesi") + value(0) + u8(250) + b"MYSYM   " + u8(1)
          + c("cminit") + u8(250) + b"MYSYM   " + c("cmallc") + CONV0
          + c("xcmdsi") + value(0) + u8(250) + b"MYSYM   "
          + c("xcmssi") + value(0) + u8(0) + length32(100) + block(entry[:100])
          + c("cmsltp") + name_arg("SERVER") + c("cmsltp") + name_arg("X" * 64)
          + script("receive_allocate", outputs=ebcdic("SERVER", 64) + bytes(range(8)) + u32(77)
                   + u8(1) + u8(1) + ebcdic("USER1", 10) + ascii_field("LOCAL", 8)
                   + ebcdic("#INTER", 8) + ebcdic("NETWORK.LOCAL", 17))
          + c("cmaccp") + c("cmectx") + CONV0 + c("cmsctx") + u8(1) + u8(1)
          + c("cmrltp") + name_arg("SERVER") + c("cminic") + c("cmacci") + CONV1
          + c("cmterm") + value(0))
    # Output variables holding old values when calls fail, traced.
    write(t, "failed_calls_leave_outputs_traced",
          u8(192 + 17) + u8(1) + u8(192 + 19) + length32(1000)
          + c("cmrcv") + u8(250) + bytes(8) + small(10)
          + c("cmemn") + u8(250) + bytes(8) + c("cmecsu") + u8(250) + bytes(8)
          + c("cmectx") + u8(250) + bytes(8) + c("cmwait")
          + u8(192 + 19) + length32(40000) + c("cminit") + u8(0)
          + c("cmrcv") + CONV0 + small(5) + c("cmepln") + CONV0 + c("cmetpn") + CONV0)
    write(t, "failures_and_node_loss",
          u8(192 + 9) + u8(1) + c("cminit") + u8(0)
          + u8(192 + 10) + u8(1) + c("cminit") + u8(0)
          + u8(192 + 12) + u8(1) + c("cminic") + u8(192 + 12) + u8(0)
          + c("cminit") + u8(0) + u8(192 + 15) + u8(1) + u8(2) + c("cminit") + u8(1)
          + script("allocate", primary=0x0003) + c("cmallc") + CONV0
          + c("cmcnvo") + small(6) + block(b"ABC123") + c("cmcnvi") + small(6) + block(b"\xc1\xc2")
          + u8(192 + 18) + c("cmallc") + CONV0)


# ---- fuzz_session_flows -----------------------------------------------------------
def flows_seeds():
    t = "fuzz_session_flows"
    clear(t)
    bind = hexb("31 00 13 07 B0 B0 50 B0 47 07 87 87 07 07 06 02 00 00 00 00 00 00 00 02 20 00 00"
                " 03 D3 E4 C1 13 00 07 02 7B C9 D5 E3 C5 D9 09 04 D5 C5 E3 C1 4B D3 E4 C1 00"
                " 03 D3 E4 C2")
    write(t, "rh_request_bb_cd", u8(0) + hexb("03 80 E0"))
    write(t, "rh_negative_response", u8(0) + hexb("87 90 00"))
    write(t, "bind_lu62", u8(1) + bind)
    write(t, "unbind_session_failure", u8(2) + hexb("32 FE 08 46 00 00"))
    write(t, "fmh5_attach_program_security",
          u8(3) + hexb("17 05 02 FF 80 03 D1 10 00 03 E2 D9 E5 07 06 02 E4 E2 C5 D9 F1 00 00"))
    write(t, "fmh5_attach_already_verified",
          u8(3) + hexb("14 05 02 FF 00 03 D0 00 00 01 E7 06 02 01 D7 02 02 E4 00 00"))
    write(t, "fmh7_with_log", u8(3) + hexb("07 07 08 89 00 00 01"))
    write(t, "flow_signal_rts", u8(4) + hexb("4B 80 00 C9 00 01 00 00"))
    write(t, "flow_fmd_data", u8(4) + hexb("03 80 00 00 05 12 FF C1"))
    write(t, "signal_ru", u8(5) + hexb("C9 00 01 00 00"))
    write(t, "gds_two_variables_split", u8(6) + u8(3) + u16(1) + u16(5) + u16(9)
          + hexb("00 05 12 FF C1 00 04 12 E1 80 03 12 FF 00 03 C2"))
    # The node with a partner on another node: RSP(BIND), then the partner's
    # data, a SIGNAL, and the program's receive and deallocate.
    rsp_bind = hexb("EB 80 00") + bind
    data = hexb("03 80 00 00 05 12 FF C1")
    write(t, "remote_partner_session", u8(8) + u8(0) + u8(0) + u8(1) + u8(0)
          + u8(0) + u8(0) + block(rsp_bind)
          + u8(1) + u8(0) + block(data)
          + u8(4) + u8(1) + u8(1) + u8(0) + u16(100)
          + u8(2) + u8(0) + block(hexb("4B 80 00 C9 00 01 00 00"))
          + u8(5) + u8(5) + u8(1) + u8(0) + u16(0) + block(b"")
          + u8(7) + u8(0) + u8(1) + u32(0x08A00007)
          + u8(6) + u8(0))
    write(t, "logical_records_split", u8(7) + u8(2) + u16(1) + u16(4)
          + hexb("00 04 AA BB 00 03 CC 80 05 01 02 03"))


# ---- fuzz_config --------------------------------------------------------------------
def config_seeds():
    t = "fuzz_config"
    clear(t)
    write(t, "empty", b"")
    write(t, "full_node", b"""[node]
name = "NETA.NODE1"
idle_exit = 30
attach_timeout = 20

[[local_lu]]
alias = "LOCAL"
name = "NETA.LOCAL"
default = true
default_partner = "PEER"

[[partner_lu]]
alias = "PEER"
name = "NETB.PEER"
accepts_already_verified = true

[[mode]]
name = "#INTER"
session_limit = 2
send_buffer_size = 4096
pacing_window = 65536

[[side_info]]
sym_dest_name = "ECHOSYM"
partner_lu = "PEER"
mode = "#INTER"
tp_name = "ECHO"
security = "program"
user_id = "USER1"
password = "SECRET"

[[side_info]]
sym_dest_name = "SVC"
partner_lu = "NETA.LOCAL"
tp_name = "06F10000"
tp_name_type = "service"

[[tp]]
name = "ECHO"
program = "/bin/cat"
arguments = ["-u"]
environment = { LANG = "C" }
conversation_type = "mapped"
sync_level = "either"
instance_limit = 4
security_required = true

[[security_user]]
user_id = "USER1"
password_hash = "$y$j9T$abc$def"
""")
    write(t, "duplicate_alias", b'[[local_lu]]\nalias = "A"\nname = "N.A"\n[[local_lu]]\nalias = "A"\nname = "N.B"\n')
    write(t, "unknown_key", b'[node]\nnmae = "x"\n')
    write(t, "bad_values", b'[[mode]]\nname = "#BATCH"\nsend_buffer_size = 10\npacing_window = -1\n')
    write(t, "syntax_error", b'[node\nname = \n')


# ---- fuzz_trace_format ---------------------------------------------------------------
def trace_seeds():
    t = "fuzz_trace_format"
    clear(t)
    fmt = b"%d %5.3i %-8s|%08x %X %o %u %c %p %% %ld %*d %.*s %#x %L"
    # Limited engine, numeric words.
    write(t, "limited_numbers", u8(0) + u8(0) + u32(60) + block(fmt)
          + b"".join(u64(v) for v in (1, 0xFFFFFFFF, 42, 0x1234, 7, 9, 65, 0, 2**63, 3, 5, 4)))
    # Limited engine, every word a string.
    write(t, "limited_strings", u8(0) + u8(1) + u32(4000) + block(fmt)
          + b"".join(block(s) for s in (b"alpha", b"", b"gamma" * 10)))
    write(t, "unbounded", u8(1) + block(b"%s=%d [%-10s] %x%%") + block(b"text"))
    write(t, "unterminated_conversion", u8(0) + u8(0) + u32(20) + block(b"abc%l"))
    # Call-trace records: a request of Send_Data and a response of Receive.
    def arg(value, tail=b"", null=False):
        return u8(0 if null else 1) + i32(value) + block(tail)
    write(t, "record_send_request", u8(2) + u8(1) + u8(1) + u32(1) + u8(1) + u8(15) + u8(0)
          + arg(0, b"\x11\x22\x33\x44") + arg(5, b"hello") + arg(5) + arg(0) + arg(0) + arg(0))
    write(t, "record_receive_response", u8(2) + u8(1) + u8(1) + u32(2) + u8(1) + u8(13) + u8(1)
          + block(b"\x01" * 64) + arg(0) + arg(12, b"received data") + arg(1) + arg(12) + arg(2)
          + arg(0))
    write(t, "record_side_info_entry", u8(2) + u8(1) + u8(1) + u32(1) + u8(1) + u8(38) + u8(0)
          + arg(0) + arg(0, b"MYSYM   NETA.LUB") + arg(124) + arg(0) + arg(0) + arg(0))
    write(t, "record_unknown_verb_async", u8(2) + u8(1) + u8(1) + u32(3) + u8(0) + u32(999) + u8(0)
          + arg(200) + arg(-5) + arg(70000) + arg(0, null=True) + arg(1) + arg(2))


def main():
    daemon_seeds()
    cpic_seeds()
    flows_seeds()
    config_seeds()
    trace_seeds()
    return 0


if __name__ == "__main__":
    sys.exit(main())
