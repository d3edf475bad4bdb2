#include "protocol/gds.h"

#include <algorithm>

namespace sna::proto {

bool ll_valid(uint16_t ll) { return (ll & kMaxLl) >= 2; }

void append_gds(uint16_t id, ByteView data, Bytes& out) {
  Writer w(out);
  size_t left = data.size();
  size_t pos = 0;
  bool first = true;
  do {
    const size_t header = first ? 4 : 2;
    const size_t take = std::min(left, size_t{kMaxLl} - header);
    left -= take;
    uint16_t ll = static_cast<uint16_t>(take + header);
    if (left > 0) ll |= kLlContinuation;
    w.u16(ll);
    if (first) w.u16(id);
    w.bytes(data.subspan(pos, take));
    pos += take;
    first = false;
  } while (left > 0);
}

Decoded<std::vector<GdsAssembler::Piece>> GdsAssembler::feed(ByteView bytes) {
  std::vector<Piece> pieces;
  size_t i = 0;
  while (i < bytes.size()) {
    if (phase_ == Phase::kHeader) {
      const size_t need = in_variable_ ? 2 : 4;
      hdr_[have_++] = bytes[i++];
      ++consumed_;
      if (have_ == 2) {
        const uint16_t ll = static_cast<uint16_t>((hdr_[0] << 8) | hdr_[1]);
        if ((ll & kMaxLl) < need) return fail("GDS LL shorter than its header", consumed_ - 2);
      }
      if (have_ < need) continue;
      const uint16_t ll = static_cast<uint16_t>((hdr_[0] << 8) | hdr_[1]);
      bool starts = false;
      if (!in_variable_) {
        id_ = static_cast<uint16_t>((hdr_[2] << 8) | hdr_[3]);
        starts = true;
      }
      more_ = ll & kLlContinuation;
      seg_left_ = (ll & kMaxLl) - need;
      have_ = 0;
      in_variable_ = more_;
      phase_ = Phase::kData;
      if (starts || seg_left_ == 0) {
        Piece p;
        p.id = id_;
        p.starts_variable = starts;
        p.ends_variable = seg_left_ == 0 && !more_;
        pieces.push_back(std::move(p));
      }
      if (seg_left_ == 0) phase_ = Phase::kHeader;
      continue;
    }
    const size_t take = std::min(seg_left_, bytes.size() - i);
    Piece* p = nullptr;
    if (!pieces.empty() && !pieces.back().ends_variable && pieces.back().id == id_)
      p = &pieces.back();
    if (!p) {
      pieces.push_back(Piece{id_, {}, false, false});
      p = &pieces.back();
    }
    p->data.insert(p->data.end(), bytes.begin() + static_cast<std::ptrdiff_t>(i),
                   bytes.begin() + static_cast<std::ptrdiff_t>(i + take));
    i += take;
    consumed_ += take;
    seg_left_ -= take;
    if (seg_left_ == 0) {
      phase_ = Phase::kHeader;
      if (!more_) p->ends_variable = true;
    }
  }
  return pieces;
}

bool LogicalRecordScanner::feed(ByteView bytes, std::vector<size_t>* ends) {
  LogicalRecordScanner s = *this;
  std::vector<size_t> found;
  size_t i = 0;
  while (i < bytes.size()) {
    if (s.left_ > 0) {
      const size_t take = std::min(s.left_, bytes.size() - i);
      s.left_ -= take;
      i += take;
      if (s.left_ == 0) found.push_back(i);
      continue;
    }
    if (s.ll_have_ == 0) {
      s.ll_first_ = bytes[i++];
      s.ll_have_ = 1;
      continue;
    }
    const uint16_t ll = static_cast<uint16_t>((s.ll_first_ << 8) | bytes[i++]);
    s.ll_have_ = 0;
    if (!ll_valid(ll)) return false;
    s.left_ = (ll & kMaxLl) - 2u;
    if (s.left_ == 0) found.push_back(i);
  }
  *this = s;
  if (ends) *ends = std::move(found);
  return true;
}

}  // namespace sna::proto
