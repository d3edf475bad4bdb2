#include "protocol/flow.h"

namespace sna::proto {

Bytes encode_flow(const Flow& f) {
  Bytes out;
  const auto rh = encode_rh(f.rh);
  out.reserve(rh.size() + f.ru.size());
  out.insert(out.end(), rh.begin(), rh.end());
  out.insert(out.end(), f.ru.begin(), f.ru.end());
  return out;
}

Decoded<Flow> decode_flow(ByteView bytes) {
  auto rh = decode_rh(bytes);
  if (!rh) return rh.error();
  Flow f;
  f.rh = rh.value();
  f.ru.assign(bytes.begin() + kRhSize, bytes.end());
  if (f.rh.sense && f.ru.size() < 4) return fail("sense data indicator set but RU shorter than 4", kRhSize);
  if (!f.rh.response && f.rh.category != RuCategory::kFmd) {
    if (f.ru.empty()) return fail("control request without a request code", kRhSize);
    if (!f.rh.format) return fail("control request not marked formatted", 0);
  }
  if (!f.rh.response && f.rh.category == RuCategory::kDfc && f.ru[0] == kSignalRequestCode) {
    auto s = decode_signal(f.ru);
    if (!s) return fail(s.error().reason, kRhSize + s.error().offset);
  }
  return f;
}

uint32_t response_sense(const Flow& rsp) {
  if (!rsp.rh.response || !rsp.rh.sense || rsp.ru.size() < 4) return 0;
  uint32_t s = 0;
  Reader(rsp.ru).u32(s);
  return s;
}

Flow signal_flow(uint32_t code) {
  Flow f;
  f.rh.category = RuCategory::kDfc;
  f.rh.format = true;
  f.rh.set_response_mode(ResponseMode::kDefinite);
  f.ru.push_back(kSignalRequestCode);
  Writer(f.ru).u32(code);
  return f;
}

Decoded<uint32_t> decode_signal(ByteView ru) {
  Reader r(ru);
  uint8_t code = 0;
  uint32_t sig = 0;
  if (!r.u8(code) || code != kSignalRequestCode) return fail("not a SIGNAL request code", 0);
  if (!r.u32(sig)) return fail("SIGNAL shorter than 5 bytes", r.offset());
  if (!r.empty()) return fail("SIGNAL longer than 5 bytes", 5);
  return sig;
}

Flow positive_response(const Flow& request) {
  Flow f;
  f.rh = response_rh(request.rh, false);
  if (request.rh.category != RuCategory::kFmd && !request.ru.empty()) f.ru.push_back(request.ru[0]);
  return f;
}

Flow negative_response(const Flow& request, uint32_t sense) {
  Flow f;
  f.rh = response_rh(request.rh, true);
  Writer(f.ru).u32(sense);
  if (request.rh.category != RuCategory::kFmd && !request.ru.empty()) f.ru.push_back(request.ru[0]);
  return f;
}

}  // namespace sna::proto
