#include <gtest/gtest.h>

#include <ostream>
#include <set>

#include "hex.h"
#include "protocol/ebcdic.h"
#include "protocol/fmh.h"

namespace sna::proto {
namespace {

using test::hex;
using test::to_hex;

// Mapped, sync level confirm, TP SRV, user ID USER1 already verified.
constexpr const char* kAttachVerified =
    "17 05 02 FF 80 03 D1 10 00 03 E2 D9 E5 07 06 02 E4 E2 C5 D9 F1 00 00";
// Basic, sync level none, TP X, program security: password P, user ID U.
constexpr const char* kAttachProgram =
    "14 05 02 FF 00 03 D0 00 00 01 E7 06 02 01 D7 02 02 E4 00 00";

Attach verified_attach() {
  Attach a;
  a.resource = ResourceType::kMapped;
  a.sync = AttachSync::kConfirm;
  a.tp_name = ebcdic_field("SRV", 3);
  a.already_verified = true;
  a.user_id = ebcdic_field("USER1", 5);
  return a;
}

Attach program_attach() {
  Attach a;
  a.resource = ResourceType::kBasic;
  a.sync = AttachSync::kNone;
  a.tp_name = ebcdic_field("X", 1);
  a.user_id = ebcdic_field("U", 1);
  a.password = ebcdic_field("P", 1);
  return a;
}

TEST(ProtoAttachCodec, GoldenVectors) {
  EXPECT_EQ(to_hex(encode_attach(verified_attach())), to_hex(hex(kAttachVerified)));
  EXPECT_EQ(to_hex(encode_attach(program_attach())), to_hex(hex(kAttachProgram)));
  auto a = decode_attach(hex(kAttachVerified));
  ASSERT_TRUE(a) << a.error().reason;
  EXPECT_EQ(a.value(), verified_attach());
  auto b = decode_attach(hex(kAttachProgram));
  ASSERT_TRUE(b) << b.error().reason;
  EXPECT_EQ(b.value(), program_attach());
}

TEST(ProtoAttachCodec, BlankSecurityValuesTravelAsEmptySubfields) {
  Attach a = program_attach();
  a.user_id = Bytes{};
  a.password = Bytes{};
  const Bytes enc = encode_attach(a);
  EXPECT_EQ(to_hex(enc), "12 05 02 FF 00 03 D0 00 00 01 E7 04 01 01 01 02 00 00");
  auto d = decode_attach(enc);
  ASSERT_TRUE(d) << d.error().reason;
  ASSERT_TRUE(d->user_id.has_value());
  ASSERT_TRUE(d->password.has_value());
  EXPECT_TRUE(d->user_id->empty());
  EXPECT_TRUE(d->password->empty());
}

TEST(ProtoAttachCodec, RoundTripsEveryTypeSyncAndNameLength) {
  for (auto res : {ResourceType::kBasic, ResourceType::kMapped})
    for (auto sync : {AttachSync::kNone, AttachSync::kConfirm, AttachSync::kSyncPoint})
      for (size_t len : {size_t{1}, size_t{8}, size_t{64}}) {
        Attach a;
        a.resource = res;
        a.sync = sync;
        a.tp_name.assign(len, 0xC1);
        a.profile = ebcdic_field("GRP", 3);
        auto d = decode_attach(encode_attach(a));
        ASSERT_TRUE(d) << d.error().reason;
        EXPECT_EQ(d.value(), a);
      }
}

TEST(ProtoAttachCodec, AcceptsAbsentTrailingFields) {
  // Up to the TP name only: no security, LUW or correlator fields.
  auto d = decode_attach(hex("0D 05 02 FF 00 03 D1 00 00 03 E2 D9 E5"));
  ASSERT_TRUE(d) << d.error().reason;
  EXPECT_FALSE(d->user_id);
}

struct BadFmh {
  const char* name;
  const char* bytes;
  const char* reason;
};
inline void PrintTo(const BadFmh& c, std::ostream* os) { *os << c.name; }

const BadFmh kBadAttach[] = {
    {"empty", "", "FMH-5 empty"},
    {"length byte differs", "18 05 02 FF 80 03 D1 10 00 03 E2 D9 E5 07 06 02 E4 E2 C5 D9 F1 00 00",
     "FMH-5 length byte does not match its header"},
    {"not type 5", "02 07", "not an FMH-5"},
    {"no command", "03 05 02", "FMH-5 too short for its command code"},
    {"not attach", "04 05 02 04", "FMH-5 command is not Attach"},
    {"fixed part missing", "05 05 02 FF 00", "FMH-5 too short"},
    {"fixed length below 3", "0D 05 02 FF 00 02 D1 00 00 03 E2 D9 E5",
     "FMH-5 fixed-length parameters too short"},
    {"fixed values missing", "08 05 02 FF 00 03 D1 00", "FMH-5 too short"},
    {"resource type", "0D 05 02 FF 00 03 D2 00 00 03 E2 D9 E5", "unknown FMH-5 resource type"},
    {"sync level", "0D 05 02 FF 00 03 D1 30 00 03 E2 D9 E5", "unknown FMH-5 synchronization level"},
    {"no TP name", "09 05 02 FF 00 03 D1 00 00", "FMH-5 without a TP name"},
    {"TP name length 0", "0A 05 02 FF 00 03 D1 00 00 00", "FMH-5 TP name length not 1-64"},
    {"TP name length 65", "0A 05 02 FF 00 03 D1 00 00 41", "FMH-5 TP name length not 1-64"},
    {"TP name past end", "0C 05 02 FF 00 03 D1 00 00 03 E2 D9", "FMH-5 TP name runs past it"},
    {"security past end", "0F 05 02 FF 00 03 D1 00 00 01 E2 05 02 02 E4",
     "FMH-5 access security runs past it"},
    {"security subfield length 0", "0E 05 02 FF 00 03 D1 00 00 01 E2 02 00 02",
     "FMH-5 security subfield length bad"},
    {"security subfield without its type", "0D 05 02 FF 00 03 D1 00 00 01 E2 01 01",
     "FMH-5 security subfield length bad"},
    {"security subfield over 10",
     "19 05 02 FF 00 03 D1 00 00 01 E2 0D 0C 02 E4 E4 E4 E4 E4 E4 E4 E4 E4 E4 E4",
     "FMH-5 security subfield longer than 10"},
    {"security subfield type", "0F 05 02 FF 00 03 D1 00 00 01 E2 03 02 07 E4",
     "unknown FMH-5 security subfield type"},
    {"LUW past end", "0E 05 02 FF 00 03 D1 00 00 01 E2 00 05 00",
     "FMH-5 trailing field runs past it"},
    {"bytes after", "0F 05 02 FF 00 03 D1 00 00 01 E2 00 00 00 00",
     "FMH-5 has bytes after its last field"},
};

class AttachBad : public ::testing::TestWithParam<BadFmh> {};

TEST_P(AttachBad, IsRefusedWithItsReason) {
  auto d = decode_attach(hex(GetParam().bytes));
  ASSERT_FALSE(d) << GetParam().name;
  EXPECT_EQ(d.error().reason, GetParam().reason) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, AttachBad, ::testing::ValuesIn(kBadAttach));

TEST(ProtoFmh7Codec, GoldenVectors) {
  EXPECT_EQ(to_hex(encode_fmh7({0x08890000, true})), "07 07 08 89 00 00 80");
  EXPECT_EQ(to_hex(encode_fmh7({0x08640001, false})), "07 07 08 64 00 01 00");
  auto d = decode_fmh7(hex("07 07 10 08 60 21 00"));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->sense, 0x10086021u);
  EXPECT_FALSE(d->error_log_follows);
}

const BadFmh kBadFmh7[] = {
    {"short", "07 07 08 89 00", "FMH-7 length is not 7"},
    {"long", "08 07 08 89 00 00 00 00", "FMH-7 length is not 7"},
    {"length byte", "06 07 08 89 00 00 00", "FMH-7 length byte is not 7"},
    {"type", "07 05 08 89 00 00 00", "not an FMH-7"},
    {"zero sense", "07 07 00 00 00 00 00", "FMH-7 sense data is zero"},
};

class Fmh7Bad : public ::testing::TestWithParam<BadFmh> {};

TEST_P(Fmh7Bad, IsRefusedWithItsReason) {
  auto d = decode_fmh7(hex(GetParam().bytes));
  ASSERT_FALSE(d) << GetParam().name;
  EXPECT_EQ(d.error().reason, GetParam().reason) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, Fmh7Bad, ::testing::ValuesIn(kBadFmh7));

const BadFmh kBadSplit[] = {
    {"empty", "", "FM header shorter than 2 bytes"},
    {"one byte", "07", "FM header shorter than 2 bytes"},
    {"length below 2", "01 07", "FM header length below 2"},
    {"length past RU", "09 07 08 89 00 00 00", "FM header length runs past the RU"},
    {"concatenated", "07 87 08 89 00 00 00", "concatenated FM headers are not used by LU 6.2"},
    {"type 1", "03 01 00", "unknown FM header type"},
    {"type 6", "03 06 00", "unknown FM header type"},
    {"type 12", "03 0C 00", "unknown FM header type"},
};

class SplitBad : public ::testing::TestWithParam<BadFmh> {};

TEST_P(SplitBad, IsRefusedWithItsReason) {
  auto d = split_fmh(hex(GetParam().bytes));
  ASSERT_FALSE(d) << GetParam().name;
  EXPECT_EQ(d.error().reason, GetParam().reason) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(ProtoCodec, SplitBad, ::testing::ValuesIn(kBadSplit));

TEST(ProtoFmhSplit, SeparatesHeaderFromFollowingData) {
  auto ru = hex("07 07 08 89 00 00 80 00 06 12 E1 C1 C2");
  auto d = split_fmh(ru);
  ASSERT_TRUE(d);
  EXPECT_EQ(d->type, 7);
  EXPECT_EQ(d->header.size(), 7u);
  EXPECT_EQ(d->rest.size(), 6u);
}

TEST(ProtoEbcdic, NamesConvertBothWays) {
  EXPECT_EQ(to_hex(ebcdic_field("#INTER", 8)), "7B C9 D5 E3 C5 D9 40 40");
  EXPECT_EQ(ebcdic_text(ebcdic_field("NET.lu@$9", 12)), "NET.lu@$9");
  EXPECT_EQ(ebcdic_trimmed_length(ebcdic_field("AB", 8)), 2u);
}

TEST(ProtoEbcdic, EveryPrintableCharacterHasItsOwnByte) {
  std::set<uint8_t> seen;
  for (char c = 0x20; c <= 0x7E; ++c) {
    const uint8_t e = to_ebcdic(c);
    EXPECT_TRUE(seen.insert(e).second) << "'" << c << "' shares a byte";
    EXPECT_EQ(from_ebcdic(e), c);
  }
  EXPECT_EQ(to_hex(ebcdic_field("[\\]{|}~^`", 10)), "BA E0 BB C0 4F D0 A1 B0 79 40");
  EXPECT_EQ(to_ebcdic('\t'), 0x6F) << "not printable: '?'";
}

}  // namespace
}  // namespace sna::proto
