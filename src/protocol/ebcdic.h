// Printable ASCII and its code page 037 EBCDIC, both ways: the characters
// that names, user IDs and passwords are made of.
#ifndef SNA_PROTO_EBCDIC_H
#define SNA_PROTO_EBCDIC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "protocol/bytes.h"

namespace sna::proto {

uint8_t to_ebcdic(char c);    // unknown characters become EBCDIC '?'
char from_ebcdic(uint8_t b);  // unknown bytes become '?'

// ASCII text to an EBCDIC field of `width` bytes, padded with 0x40.
Bytes ebcdic_field(std::string_view ascii, size_t width);
// EBCDIC bytes to ASCII with trailing blanks removed.
std::string ebcdic_text(ByteView e);
// Length of a blank-padded EBCDIC field without its trailing 0x40 bytes.
size_t ebcdic_trimmed_length(ByteView e);

}  // namespace sna::proto

#endif
