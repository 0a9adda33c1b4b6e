// The data of LC_DYLD_CHAINED_FIXUPS: pointers that the loader fills in, each leading to the next in its
// page.
#pragma once

#include <cstdint>

struct dyld_chained_fixups_header {
  uint32_t fixups_version;  // 0
  uint32_t starts_offset;   // of dyld_chained_starts_in_image
  uint32_t imports_offset;
  uint32_t symbols_offset;
  uint32_t imports_count;
  uint32_t imports_format;  // DYLD_CHAINED_IMPORT...
  uint32_t symbols_format;  // 0: not compressed
};

struct dyld_chained_starts_in_image {
  uint32_t seg_count;
  uint32_t seg_info_offset[1];  // one a segment, from the start of this structure; 0: no fixups there
};

struct dyld_chained_starts_in_segment {
  uint32_t size;
  uint16_t page_size;
  uint16_t pointer_format;  // DYLD_CHAINED_PTR_...
  uint64_t segment_offset;  // from the image's first byte
  uint32_t max_valid_pointer;
  uint16_t page_count;
  uint16_t page_start[1];  // one a page: where in it the chain starts
};

#define DYLD_CHAINED_PTR_START_NONE 0xFFFF

#define DYLD_CHAINED_PTR_64 2         // targets are addresses
#define DYLD_CHAINED_PTR_64_OFFSET 6  // targets are offsets from the image's first byte

struct dyld_chained_ptr_64_rebase {
  uint64_t target : 36;
  uint64_t high8 : 8;
  uint64_t reserved : 7;
  uint64_t next : 12;  // 4-byte strides; 0: the last one
  uint64_t bind : 1;   // 0
};

struct dyld_chained_ptr_64_bind {
  uint64_t ordinal : 24;
  uint64_t addend : 8;
  uint64_t reserved : 19;
  uint64_t next : 12;
  uint64_t bind : 1;  // 1
};

#define DYLD_CHAINED_IMPORT 1
#define DYLD_CHAINED_IMPORT_ADDEND 2
#define DYLD_CHAINED_IMPORT_ADDEND64 3

struct dyld_chained_import {
  uint32_t lib_ordinal : 8;
  uint32_t weak_import : 1;
  uint32_t name_offset : 23;
};

struct dyld_chained_import_addend {
  uint32_t lib_ordinal : 8;
  uint32_t weak_import : 1;
  uint32_t name_offset : 23;
  int32_t addend;
};

struct dyld_chained_import_addend64 {
  uint64_t lib_ordinal : 16;
  uint64_t weak_import : 1;
  uint64_t reserved : 15;
  uint64_t name_offset : 32;
  uint64_t addend;
};
