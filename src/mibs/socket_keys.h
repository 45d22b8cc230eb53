// Reading the keys of one socket end (type, address, port) from a TCP-MIB or UDP-MIB entry keypath.
#ifndef LEISOBEK_MIBS_SOCKET_KEYS_H
#define LEISOBEK_MIBS_SOCKET_KEYS_H

#include "core/confd_api.h"
#include "statslist.h"

// Reads keys first, first + 1 and first + 2 of row 1 of the keypath kp (an
// InetAddressType, an InetAddress and a port) into the fields type, addr and
// addr_len, and port of a scratch record, asserting that they are
// C_ENUM_VALUE, C_BINARY and C_UINT32; clears fits when the address is
// longer than any row's. A macro so that it expands inside the callback: a
// failed assertion then names the callback, and its expression text comes
// from the name of the variable v_pp ("(v_pp)->type == C_UINT32"), so that
// name is part of the required abort texts: keep it.
#define SOCKET_END_KEYS(kp, first, type, addr, addr_len, port, fits)                               \
    do {                                                                                           \
        confd_value_t *v_pp = &(kp)->v[1][(first)];                                                \
        (type) = CONFD_GET_ENUM_VALUE(v_pp);                                                       \
        v_pp = &(kp)->v[1][(first) + 1];                                                           \
        if (!stats_copy_addr((addr), &(addr_len), CONFD_GET_BINARY_PTR(v_pp),                      \
                             CONFD_GET_BINARY_SIZE(v_pp)))                                         \
            (fits) = false;                                                                        \
        v_pp = &(kp)->v[1][(first) + 2];                                                           \
        (port) = CONFD_GET_UINT32(v_pp);                                                           \
    } while (0)

#endif
