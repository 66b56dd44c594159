#include "record/layout.h"

uint64_t kestrel_vlan_offset = 0;
uint64_t kestrel_mpls_offset = 0;
uint64_t kestrel_mac_offset = 0;
