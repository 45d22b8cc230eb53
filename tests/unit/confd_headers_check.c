/* Compiles the ConfD API headers as C11 and uses a few macros and structs as applications do. */
#include <string.h>

#include <confd_lib.h>
#include <confd_dp.h>
#include <confd_maapi.h>
#include <confd_events.h>

/* Returns 0 when every macro behaved as in C++, else the number of the failed check. */
int confd_headers_c_check(void)
{
    confd_value_t v;
    struct confd_snmp_oid oid = {{1, 3, 6, 1, 2, 1}, 6};
    struct confd_data_cbs cbs;

    CONFD_SET_UINT32(&v, 4000000000u);
    if (CONFD_GET_UINT32(&v) != 4000000000u)
        return 1;
    CONFD_SET_ENUM_VALUE(&v, -3);
    if (CONFD_GET_ENUM_VALUE(&v) != -3 || CONFD_GET_ENUM_HASH(&v) != (uint32_t)-3)
        return 2;
    CONFD_SET_OID(&v, &oid);
    if (CONFD_GET_OID(&v)->len != 6)
        return 3;
    /* The callback tables are plain C structs, cleared and filled as applications do. */
    memset(&cbs, 0, sizeof cbs);
    if (cbs.get_elem != NULL || cbs.cb_opaque != NULL)
        return 4;
    if (strncmp(__MAAPI_CLIENT_ID__, __FILE__ ":", strlen(__FILE__) + 1) != 0)
        return 5;
    return 0;
}
