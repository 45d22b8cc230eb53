// ENTITY-MIB provider: entPhysicalTable as one row, the chassis, from the entity collector.
#include "entmibimpl.h"

#include "core/leisobek.h"
#include "entstats.h"
#include "timedcache.h"

#include "ENTITY-MIB.h"

#include <cstring>

namespace
{

// The systeminfo package is reread on every 19th request (and the first).
const uint32_t entity_period = 19;

ent_physical entity;
// Kept like every provider's copy; no entity request needs MAAPI.
int ent_maapi_sock = -1;

char manufacturer[] = "Kelto";

// The table has the single row 1: a walk gets it first and then the end.
int entity_phyentry_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    const confd_value_t *list = &kp->v[0][0];
    if (list->type == C_XMLTAG && CONFD_GET_XMLTAG(list) == ENTITY_MIB_entPhysicalEntry &&
        next == -1) {
        confd_value_t key;
        CONFD_SET_INT32(&key, 1);
        confd_data_reply_next_key(tctx, &key, 1, 1);
        return CONFD_OK;
    }
    confd_data_reply_next_key(tctx, nullptr, -1, -1);
    return CONFD_OK;
}

// Any index gets the chassis row's values: the key is not looked at.
int entity_phyentry_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    // A package that cannot be read leaves the row without values; the next
    // try comes with the 20th request. A read is answered "not found": an
    // end-of-list reply is no answer to a read, and ConfD would drop the
    // daemon for not answering.
    if (request_count_due(&entity.requests, entity_period) && ent_read_systeminfo(&entity) != 0) {
        confd_data_reply_not_found(tctx);
        TRACE_EXIT();
        return CONFD_OK;
    }
    uint32_t leaf = CONFD_GET_XMLTAG(&(kp->v[0][0]));
    TRACE_EXIT();
    confd_value_t v;
    switch (leaf) {
    case ENTITY_MIB_entPhysicalDescr:
        CONFD_SET_STR(&v, entity.description);
        break;
    case ENTITY_MIB_entPhysicalName:
        CONFD_SET_STR(&v, entity.name);
        break;
    case ENTITY_MIB_entPhysicalHardwareRev:
        CONFD_SET_STR(&v, entity.hardware_rev);
        break;
    case ENTITY_MIB_entPhysicalFirmwareRev:
        CONFD_SET_STR(&v, entity.firmware);
        break;
    case ENTITY_MIB_entPhysicalSerialNum:
        CONFD_SET_STR(&v, entity.serial);
        break;
    case ENTITY_MIB_entPhysicalMfgName:
        CONFD_SET_STR(&v, manufacturer);
        break;
    case ENTITY_MIB_entPhysicalModelName:
        CONFD_SET_STR(&v, entity.model);
        break;
    case ENTITY_MIB_entPhysicalIndex:
        // The row's one integer column answers whether the package was read.
        CONFD_SET_INT32(&v, entity.loaded);
        break;
    default:
        CONFD_SET_NOEXISTS(&v);
        break;
    }
    confd_data_reply_value(tctx, &v);
    return CONFD_OK;
}

} // namespace

int register_entity(struct confd_daemon_ctx *dctx, int msock)
{
    memset(&entity, 0, sizeof entity);
    ent_maapi_sock = msock;
    struct confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", ENTITY_MIB__callpointid_entphyentry_snmp);
    cbs.get_elem = entity_phyentry_get_elem;
    cbs.get_next = entity_phyentry_get_next;
    cbs.set_elem = ignore_set_elem;
    cbs.create = ignore_create;
    cbs.remove = ignore_remove;
    if (confd_register_data_cb(dctx, &cbs) == CONFD_ERR)
        confd_fatal("Failed to register entity physical entry transform memory  cb \n");
    return ent_read_firmware_version(&entity);
}
