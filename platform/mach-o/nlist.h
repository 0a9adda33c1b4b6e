// An entry of a Mach-O symbol table. 64-bit only.
#pragma once

#include <cstdint>

struct nlist_64 {
  union {
    uint32_t n_strx;  // the name's offset in the string table
  } n_un;
  uint8_t n_type;
  uint8_t n_sect;
  uint16_t n_desc;
  uint64_t n_value;
};

#define N_STAB 0xe0
#define N_TYPE 0x0e
#define N_EXT 0x01
#define N_UNDF 0x0
#define N_SECT 0xe
