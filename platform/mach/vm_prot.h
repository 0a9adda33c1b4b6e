// Page protections. The numbers are those of <sys/mman.h>.
#pragma once

typedef int vm_prot_t;

#define VM_PROT_NONE 0x00
#define VM_PROT_READ 0x01
#define VM_PROT_WRITE 0x02
#define VM_PROT_EXECUTE 0x04
