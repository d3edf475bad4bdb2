/* Verb blocks and node-operator records to wire frames and back.
 *
 * Every field is read and written with memcpy at the offset the block's
 * struct gives on this word size, so a block need not be aligned and a
 * short block (76 bytes for the TP-name verbs, the header alone for FLUSH)
 * is never read or written beyond the fields its verb has. */
#include <string.h>

#include "client.h"

namespace snanode {

namespace {

using sna::wire::Nof;
using sna::wire::NofReply;
using sna::wire::Verb;
using sna::wire::VerbReply;

template <typename T>
T load(const void *block, size_t offset) {
  T value;
  memcpy(&value, static_cast<const uint8_t *>(block) + offset, sizeof value);
  return value;
}

template <typename T>
void store(void *block, size_t offset, T value) {
  memcpy(static_cast<uint8_t *>(block) + offset, &value, sizeof value);
}

void load_bytes(const void *block, size_t offset, uint8_t *to, size_t n) {
  memcpy(to, static_cast<const uint8_t *>(block) + offset, n);
}

void store_bytes(void *block, size_t offset, const uint8_t *from, size_t n) {
  memcpy(static_cast<uint8_t *>(block) + offset, from, n);
}

/* tp_id and conv_id of a verb on a conversation. */
void load_conversation(const void *block, Verb &verb) {
  load_bytes(block, offsetof(VCB_HEADER, tp_id), verb.tp_id, sizeof verb.tp_id);
  verb.conv_id = load<uint32_t>(block, offsetof(VCB_HEADER, conv_id));
}

/* The bytes behind a pointer field and their length. */
Translation attach_data(VerbRequest *request, const void *data, uint32_t length) {
  request->verb.data_length = length;
  if (length == 0) return Translation::kOk;
  if (!data) return Translation::kNullPointer;
  request->data = data;
  request->data_carried = sna::wire::data_carried(length);
  return Translation::kOk;
}

}  // namespace

void write_codes(void *block, uint16_t primary, uint32_t secondary) {
  if (!block) return;
  uint8_t *bytes = static_cast<uint8_t *>(block);
  bytes[4] = static_cast<uint8_t>(primary >> 8);
  bytes[5] = static_cast<uint8_t>(primary);
  bytes[8] = static_cast<uint8_t>(secondary >> 24);
  bytes[9] = static_cast<uint8_t>(secondary >> 16);
  bytes[10] = static_cast<uint8_t>(secondary >> 8);
  bytes[11] = static_cast<uint8_t>(secondary);
}

Translation translate_verb(const void *block, VerbRequest *request) {
  request->verb = Verb{};
  request->data = nullptr;
  request->data_carried = 0;
  request->receive_buffer = nullptr;
  request->receive_max = 0;
  Verb &verb = request->verb;
  const uint8_t *bytes = static_cast<const uint8_t *>(block);
  verb.opcode = load<uint16_t>(block, offsetof(VCB_HEADER, opcode));
  verb.opext = bytes[offsetof(VCB_HEADER, opext)];
  verb.format = bytes[offsetof(VCB_HEADER, format)];

  switch (verb.opcode) {
    case VERB_ALLOCATE:
      load_bytes(block, offsetof(VCB_ALLOCATE, hdr.tp_id), verb.tp_id, sizeof verb.tp_id);
      verb.sync_level = bytes[offsetof(VCB_ALLOCATE, sync_level)];
      verb.return_control = bytes[offsetof(VCB_ALLOCATE, return_control)];
      load_bytes(block, offsetof(VCB_ALLOCATE, partner_lu_alias), verb.partner_lu_alias, 8);
      load_bytes(block, offsetof(VCB_ALLOCATE, mode_name), verb.mode_name, 8);
      load_bytes(block, offsetof(VCB_ALLOCATE, tp_name), verb.tp_name, 64);
      verb.security = bytes[offsetof(VCB_ALLOCATE, security)];
      load_bytes(block, offsetof(VCB_ALLOCATE, password), verb.password, 10);
      load_bytes(block, offsetof(VCB_ALLOCATE, user_id), verb.user_id, 10);
      verb.pip_length = load<uint16_t>(block, offsetof(VCB_ALLOCATE, pip_length));
      load_bytes(block, offsetof(VCB_ALLOCATE, fq_partner_lu), verb.partner_lu_name, 17);
      return Translation::kOk;

    case VERB_CONFIRM:
    case VERB_CONFIRMED:
    case VERB_FLUSH:
    case VERB_GET_STATE:
    case VERB_REQUEST_TO_SEND:
    case VERB_TEST_RTS:
    case VERB_CANCEL_CONVERSATION:
      load_conversation(block, verb);
      return Translation::kOk;

    case VERB_DEALLOCATE:
      load_conversation(block, verb);
      verb.type = bytes[offsetof(VCB_DEALLOCATE, type)];
      return attach_data(request, load<void *>(block, offsetof(VCB_DEALLOCATE, log_data)),
                         load<uint16_t>(block, offsetof(VCB_DEALLOCATE, log_length)));

    case VERB_PREPARE_TO_RECEIVE:
      load_conversation(block, verb);
      verb.type = bytes[offsetof(VCB_PREPARE_TO_RECEIVE, type)];
      verb.locks = bytes[offsetof(VCB_PREPARE_TO_RECEIVE, locks)];
      return Translation::kOk;

    case VERB_RECEIVE_AND_WAIT:
    case VERB_RECEIVE_IMMEDIATELY: {
      load_conversation(block, verb);
      verb.return_status_with_data = bytes[offsetof(VCB_RECEIVE, return_status_with_data)];
      verb.fill = bytes[offsetof(VCB_RECEIVE, fill)];
      verb.max_length = load<uint16_t>(block, offsetof(VCB_RECEIVE, max_length));
      uint8_t *buffer = static_cast<uint8_t *>(load<void *>(block, offsetof(VCB_RECEIVE, buffer)));
      if (verb.max_length > 0 && !buffer) return Translation::kNullPointer;
      request->receive_buffer = buffer;
      request->receive_max = verb.max_length;
      return Translation::kOk;
    }

    case VERB_SEND_DATA:
      load_conversation(block, verb);
      verb.send_type = bytes[offsetof(VCB_SEND_DATA, send_type)];
      return attach_data(request, load<void *>(block, offsetof(VCB_SEND_DATA, data)),
                         load<uint16_t>(block, offsetof(VCB_SEND_DATA, data_length)));

    case VERB_SEND_ERROR:
      load_conversation(block, verb);
      verb.error_type = bytes[offsetof(VCB_SEND_ERROR, error_type)];
      verb.direction = bytes[offsetof(VCB_SEND_ERROR, direction)];
      return attach_data(request, load<void *>(block, offsetof(VCB_SEND_ERROR, log_data)),
                         load<uint16_t>(block, offsetof(VCB_SEND_ERROR, log_length)));

    case VERB_TP_ENDED:
      load_bytes(block, offsetof(VCB_TP_ENDED, tp_id), verb.tp_id, sizeof verb.tp_id);
      verb.type = bytes[offsetof(VCB_TP_ENDED, type)];
      return Translation::kOk;

    case VERB_TP_STARTED:
      load_bytes(block, offsetof(VCB_TP_STARTED, lu_alias), verb.local_lu_alias, 8);
      load_bytes(block, offsetof(VCB_TP_STARTED, tp_name), verb.tp_name, 64);
      return Translation::kOk;

    case VERB_RECEIVE_ALLOCATE_CPIC:
      /* The name list only helps the application; the node matches on the
       * client's registered names. */
      verb.correlator = load<uint32_t>(block, offsetof(VCB_RECEIVE_ALLOCATE, conv_id));
      return Translation::kOk;

    case VERB_REGISTER_TP_NAME:
    case VERB_WITHDRAW_TP_NAME:
      load_bytes(block, offsetof(VCB_TP_NAME, tp_name), verb.tp_name, 64);
      return Translation::kOk;

    default:
      return Translation::kUnknownOpcode;
  }
}

void apply_verb_reply(void *block, uint16_t opcode, const VerbReply &reply, uint32_t copied) {
  write_codes(block, reply.primary, reply.secondary);
  const uint32_t mask = reply.outputs;
  uint8_t *bytes = static_cast<uint8_t *>(block);
  switch (opcode) {
    case VERB_ALLOCATE:
      if (mask & sna::wire::kOutConvId) store<uint32_t>(block, offsetof(VCB_HEADER, conv_id), reply.conv_id);
      break;
    case VERB_CONFIRM:
      if (mask & sna::wire::kOutRts) bytes[offsetof(VCB_CONFIRM, rts_received)] = reply.rts_received;
      break;
    case VERB_GET_STATE:
      if (mask & sna::wire::kOutState) bytes[offsetof(VCB_GET_STATE, state)] = reply.state;
      break;
    case VERB_RECEIVE_AND_WAIT:
    case VERB_RECEIVE_IMMEDIATELY:
      if (mask & sna::wire::kOutReceive) {
        store<uint16_t>(block, offsetof(VCB_RECEIVE, what_received), reply.what_received);
        uint32_t length = reply.data_length < copied ? reply.data_length : copied;
        store<uint16_t>(block, offsetof(VCB_RECEIVE, data_length), static_cast<uint16_t>(length));
      }
      if (mask & sna::wire::kOutRts) bytes[offsetof(VCB_RECEIVE, rts_received)] = reply.rts_received;
      break;
    case VERB_SEND_DATA:
      if (mask & sna::wire::kOutRts) bytes[offsetof(VCB_SEND_DATA, rts_received)] = reply.rts_received;
      break;
    case VERB_SEND_ERROR:
      if (mask & sna::wire::kOutRts) bytes[offsetof(VCB_SEND_ERROR, rts_received)] = reply.rts_received;
      break;
    case VERB_TP_STARTED:
      if (mask & sna::wire::kOutLocalLuAlias)
        store_bytes(block, offsetof(VCB_TP_STARTED, lu_alias), reply.local_lu_alias, 8);
      if (mask & sna::wire::kOutTpId) store_bytes(block, offsetof(VCB_TP_STARTED, tp_id), reply.tp_id, 8);
      break;
    case VERB_RECEIVE_ALLOCATE_CPIC:
      if (mask & sna::wire::kOutAttach) {
        store_bytes(block, offsetof(VCB_RECEIVE_ALLOCATE, tp_name), reply.tp_name, 64);
        bytes[offsetof(VCB_RECEIVE_ALLOCATE, sync_level)] = reply.sync_level;
        bytes[offsetof(VCB_RECEIVE_ALLOCATE, conversation_type)] = reply.conversation_type;
        store_bytes(block, offsetof(VCB_RECEIVE_ALLOCATE, user_id), reply.user_id, 10);
        store_bytes(block, offsetof(VCB_RECEIVE_ALLOCATE, mode_name), reply.mode_name, 8);
        store_bytes(block, offsetof(VCB_RECEIVE_ALLOCATE, fq_partner_lu), reply.partner_lu_name, 17);
      }
      if (mask & sna::wire::kOutTpId)
        store_bytes(block, offsetof(VCB_RECEIVE_ALLOCATE, tp_id), reply.tp_id, 8);
      if (mask & sna::wire::kOutLocalLuAlias)
        store_bytes(block, offsetof(VCB_RECEIVE_ALLOCATE, local_lu_alias), reply.local_lu_alias, 8);
      if (mask & sna::wire::kOutConvId)
        store<uint32_t>(block, offsetof(VCB_RECEIVE_ALLOCATE, conv_id), reply.conv_id);
      break;
    default:
      break; /* no outputs beyond the codes */
  }
}

Translation translate_nof(uint32_t target_handle, const void *record, NofRequest *request) {
  request->nof = Nof{};
  request->buffer = nullptr;
  request->buffer_size = 0;
  Nof &nof = request->nof;
  const uint8_t *bytes = static_cast<const uint8_t *>(record);
  nof.opcode = load<uint16_t>(record, 0);
  switch (nof.opcode) {
    case NOF_OPEN:
      nof.access = bytes[offsetof(NOF_OPEN_RECORD, kind)];
      return Translation::kOk;
    case NOF_QUERY_SIDE_INFO: {
      nof.format = bytes[offsetof(NOF_QUERY_RECORD, kind)];
      nof.target_handle = target_handle;
      nof.buffer_size = load<uint32_t>(record, offsetof(NOF_QUERY_RECORD, buffer_size));
      nof.entries_wanted = load<uint16_t>(record, offsetof(NOF_QUERY_RECORD, num_entries));
      nof.list_option = bytes[offsetof(NOF_QUERY_RECORD, list_option)];
      load_bytes(record, offsetof(NOF_QUERY_RECORD, sym_dest_name), nof.sym_dest_name, 8);
      uint8_t *buffer = static_cast<uint8_t *>(load<void *>(record, offsetof(NOF_QUERY_RECORD, buffer)));
      if (nof.buffer_size > 0 && !buffer) return Translation::kNullPointer;
      request->buffer = buffer;
      request->buffer_size = nof.buffer_size;
      return Translation::kOk;
    }
    case NOF_CLOSE:
      nof.target_handle = target_handle;
      return Translation::kOk;
    default:
      /* The node answers opcodes it does not know; only the opcode and the
       * handle are certain to be there. */
      nof.target_handle = target_handle;
      return Translation::kOk;
  }
}

void side_info_entries_to_host(uint8_t *entries, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    uint8_t *entry = entries + static_cast<size_t>(i) * sna::wire::kSideInfoEntrySize;
    store<uint16_t>(entry, 0, sna::wire::get16(entry, 0));
    store<uint32_t>(entry, offsetof(NOF_SIDE_INFO_ENTRY, tp_name_type),
                    sna::wire::get32(entry, offsetof(NOF_SIDE_INFO_ENTRY, tp_name_type)));
    store<uint32_t>(entry, offsetof(NOF_SIDE_INFO_ENTRY, security_type),
                    sna::wire::get32(entry, offsetof(NOF_SIDE_INFO_ENTRY, security_type)));
  }
}

void apply_nof_reply(void *record, uint16_t opcode, const NofReply &reply, uint16_t copied) {
  write_codes(record, reply.primary, reply.secondary);
  if (reply.primary != 0) return;
  if (opcode == NOF_OPEN) store<uint32_t>(record, offsetof(NOF_OPEN_RECORD, target_handle), reply.target_handle);
  if (opcode == NOF_QUERY_SIDE_INFO) store<uint16_t>(record, offsetof(NOF_QUERY_RECORD, reserved26), copied);
}

}  // namespace snanode
