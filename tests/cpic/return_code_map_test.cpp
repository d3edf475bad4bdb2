// Every row of the APPC-to-CPI-C return-code mapping, with its boundaries
// and the problem record written for each product-specific error.
#include <gtest/gtest.h>

#include "cpic.h"
#include "internal.h"
#include "testnode.h"

using namespace cpic;

namespace {

struct RcCase {
  uint16_t primary;    // big-endian number
  uint32_t secondary;  // big-endian number
  int32_t expected;
};

const RcCase kCases[] = {
    {0x0001, 0x00000031, CM_PROGRAM_PARAMETER_CHECK},
    {0x0001, 0x000000F1, CM_PROGRAM_PARAMETER_CHECK},
    {0x0001, 0x0000015B, CM_PROGRAM_PARAMETER_CHECK},
    {0x0001, 0x00000017, CM_PARAMETER_ERROR},
    {0x0001, 0x00000018, CM_PARAMETER_ERROR},
    {0x0001, 0x00000019, CM_PRODUCT_SPECIFIC_ERROR},
    {0x0001, 0x00000000, CM_PRODUCT_SPECIFIC_ERROR},
    {0x0002, 0x12345678, CM_PROGRAM_STATE_CHECK},
    {0x0003, 0x00000004, CM_ALLOCATE_FAILURE_NO_RETRY},
    {0x0003, 0x00000005, CM_ALLOCATE_FAILURE_RETRY},
    {0x0003, 0x10086034, CM_CONVERSATION_TYPE_MISMATCH},
    {0x0003, 0x10086031, CM_PRODUCT_SPECIFIC_ERROR},
    {0x0003, 0x080F6051, CM_SECURITY_NOT_VALID},
    {0x0003, 0x00009016, CM_SECURITY_NOT_VALID},
    {0x0003, 0x080FFF00, CM_SECURITY_NOT_VALID},
    {0x0003, 0x080FFF07, CM_SECURITY_NOT_VALID},
    {0x0003, 0x080FFF0D, CM_SECURITY_NOT_VALID},
    {0x0003, 0x080FFF0E, CM_PRODUCT_SPECIFIC_ERROR},
    {0x0003, 0x080FFEFF, CM_PRODUCT_SPECIFIC_ERROR},
    {0x0003, 0x080F6058, CM_SECURITY_NOT_VALID},
    {0x0003, 0x10086041, CM_SYNC_LVL_NOT_SUPPORTED_PGM},
    {0x0003, 0x10086021, CM_TPN_NOT_RECOGNIZED},
    {0x0003, 0x084C0000, CM_TP_NOT_AVAILABLE_NO_RETRY},
    {0x0003, 0x084B6031, CM_TP_NOT_AVAILABLE_RETRY},
    {0x0003, 0x00000006, CM_PRODUCT_SPECIFIC_ERROR},
    {0x0005, 0x08640000, CM_DEALLOCATED_ABEND},
    {0x0006, 0x00000000, CM_DEALLOCATED_ABEND},
    {0x0007, 0x08640001, CM_DEALLOCATED_ABEND_SVC},
    {0x0008, 0x08640002, CM_DEALLOCATED_ABEND_TIMER},
    {0x0009, 0x00000000, CM_DEALLOCATED_NORMAL},
    {0x0009, 0xFFFFFFFF, CM_DEALLOCATED_NORMAL},
    {0x000A, 0x00000000, CM_PRODUCT_SPECIFIC_ERROR},
    {0x000C, 0x08890000, CM_PROGRAM_ERROR_NO_TRUNC},
    {0x000D, 0x08890001, CM_PROGRAM_ERROR_TRUNC},
    {0x000E, 0x08890000, CM_PROGRAM_ERROR_PURGING},
    {0x000F, 0x00000000, CM_RESOURCE_FAILURE_RETRY},
    {0x0010, 0x00000000, CM_RESOURCE_FAILURE_NO_RETRY},
    {0x0011, 0x08890100, CM_SVC_ERROR_NO_TRUNC},
    {0x0012, 0x08891001, CM_SVC_ERROR_TRUNC},
    {0x0013, 0x08890100, CM_SVC_ERROR_PURGING},
    {0x0014, 0x00000000, CM_UNSUCCESSFUL},
    {0x0015, 0x00000000, CM_PRODUCT_SPECIFIC_ERROR},
    {0x0021, 0x00000000, CM_PRODUCT_SPECIFIC_ERROR},
    {0xF002, 0x00000000, CM_PRODUCT_SPECIFIC_ERROR},
    {0xF003, 0x00000000, CM_PRODUCT_SPECIFIC_ERROR},
    {0xF004, 0x00000000, CM_PRODUCT_SPECIFIC_ERROR},
    {0x0000, 0x00000000, CM_PRODUCT_SPECIFIC_ERROR},
};

class ReturnCodeMap : public ::testing::TestWithParam<RcCase> {};

TEST_P(ReturnCodeMap, MapsAndLogsOnlyProductSpecificErrors) {
  testnode::reset();
  const RcCase &c = GetParam();
  // The fields as the node stores them: big-endian.
  const uint16_t stored_primary = static_cast<uint16_t>((c.primary >> 8) | (c.primary << 8));
  const uint32_t stored_secondary = __builtin_bswap32(c.secondary);
  int32_t rc = -1;
  SCC_map_return_codes(&rc, stored_primary, stored_secondary, 0x000F);
  EXPECT_EQ(rc, c.expected);
  if (c.expected == CM_PRODUCT_SPECIFIC_ERROR) {
    ASSERT_EQ(testnode::problems().size(), 1u);
    const auto &r = testnode::problems()[0];
    EXPECT_EQ(r.message, 0x20030016u);
    EXPECT_EQ(r.sub_code, 1u);
    EXPECT_EQ(r.format, "x x lx");
    // The record carries the fields as they stand in the block.
    char primary[8], secondary[12];
    std::snprintf(primary, sizeof primary, "%04X", stored_primary);
    std::snprintf(secondary, sizeof secondary, "%08X", stored_secondary);
    EXPECT_EQ(r.data, (std::vector<std::string>{"000F", primary, secondary}));
  } else {
    EXPECT_TRUE(testnode::problems().empty());
  }
}

INSTANTIATE_TEST_SUITE_P(EveryRow, ReturnCodeMap, ::testing::ValuesIn(kCases));

}  // namespace
