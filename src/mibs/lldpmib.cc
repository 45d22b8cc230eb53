// LLDP-MIB provider: lldpRemTable from the neighbour file that the system's LLDP script writes.
//
// Each line of the file is one neighbour, "?"-separated. The table is re-read
// at the start of every walk into a fixed array of records that is
// overwritten in place and never cleared, which gives the table the router's
// long-standing quirks, kept on purpose for the managers that know them:
// all three index objects of a neighbour are its line number, a walk yields
// one row past the last line, and capability bits pile up across reads.
#include "lldpmib.h"

#include "LLDP-MIB.h"
#include "core/fieldcopy.h"
#include "core/sysenv.h"

#include <cstdint>
#include <cstring>
#include <memory>

namespace
{

constexpr int text_size = 255;
constexpr int max_neighbours = 10;

struct LldpNeighbour {
    uint32_t time_mark;
    int32_t local_port_num;
    int32_t rem_index;
    int32_t port_id_subtype;
    char port_id[256];
    int32_t chassis_id_subtype;
    char chassis_id[text_size];
    char text_c[text_size]; // file field 10
    char text_a[text_size]; // file field 1
    char text_b[text_size]; // file field 9
    uint32_t caps_supported;
    uint32_t caps_enabled;
};

LldpNeighbour neighbours[max_neighbours];
// Lines read by the last load, and the next record a walk hands out.
int neighbour_count;
int neighbour_cursor;

// Kept like every provider's copy; nothing here needs MAAPI.
int lldp_socket = -1;

struct file_closer {
    void operator()(FILE *f) const { fclose(f); }
};

// The identifier subtype of a file field: macAddress (4) for "mac", else 1.
// The port subtype takes the same 4, as the router always answered.
int32_t id_subtype(const char *field)
{
    return strcmp(field, "mac") == 0 ? 4 : 1;
}

// Capability numbers of a file field. Kept as the router sends them: the
// numbers 2, 4 and 3 are OR-ed as they stand, not as bit positions.
uint32_t capabilities(const char *field)
{
    uint32_t caps = 0;
    if (strstr(field, "Bridge") != nullptr) caps |= 2;
    if (strstr(field, "Router") != nullptr) caps |= 4;
    if (strstr(field, "Wlan") != nullptr) caps |= 3;
    return caps;
}

// Stores file field number index of a line into rec.
void store_field(LldpNeighbour *rec, int index, const char *field)
{
    switch (index) {
    case 1:
        snprintf(rec->text_a, sizeof rec->text_a, "%s", field);
        break;
    case 2:
        rec->chassis_id_subtype = id_subtype(field);
        break;
    case 3:
        copy_field_as_format(rec->chassis_id, sizeof rec->chassis_id, field);
        break;
    case 4:
        rec->port_id_subtype = id_subtype(field);
        break;
    case 5:
        copy_field_as_format(rec->port_id, sizeof rec->port_id, field);
        break;
    case 7:
        // Never cleared between reads: a capability once seen stays.
        rec->caps_supported |= capabilities(field);
        break;
    case 8:
        rec->caps_enabled |= capabilities(field);
        break;
    case 9:
        copy_field_as_format(rec->text_b, sizeof rec->text_b, field);
        break;
    case 10:
        copy_field_as_format(rec->text_c, sizeof rec->text_c, field);
        break;
    default: // 0, 6 and the rest of the line are not used
        break;
    }
}

// Six bytes from a "%x:%x:%x:%x:%x:%x" identifier, each number cut to a
// byte; numbers that do not parse are 0. Whatever the subtype says, the
// identifier is answered as these six bytes.
void identifier_bytes(const char *text, unsigned char out[6])
{
    unsigned int n[6] = {0, 0, 0, 0, 0, 0};
    sscanf(text, "%x:%x:%x:%x:%x:%x", &n[0], &n[1], &n[2], &n[3], &n[4], &n[5]);
    for (int i = 0; i < 6; i++)
        out[i] = static_cast<unsigned char>(n[i]);
}

void reply_noexists(struct confd_trans_ctx *tctx)
{
    confd_value_t v;
    CONFD_SET_NOEXISTS(&v);
    confd_data_reply_value(tctx, &v);
}

// get_elem of lldpRemEntry: .../lldpRemEntry{timemark port index}/leaf. The
// record is the one at the lldpRemIndex position; the other two keys are not
// compared. Leaves the table does not serve, and indexes past the records,
// are answered C_NOEXISTS.
int lldp_lldpRemEntry_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    const confd_value_t *key1 = &kp->v[1][0];
    const confd_value_t *key2 = &kp->v[1][1];
    const confd_value_t *key3 = &kp->v[1][2];
    (void)CONFD_GET_UINT32(key1);
    (void)CONFD_GET_INT32(key2);
    int32_t index = CONFD_GET_INT32(key3);

    const confd_value_t *leaf = &kp->v[0][0];
    if (leaf->type != C_XMLTAG || index < 0 || index >= max_neighbours) {
        reply_noexists(tctx);
        return CONFD_OK;
    }
    LldpNeighbour *rec = &neighbours[index];
    unsigned char id[6];
    confd_value_t v;
    switch (CONFD_GET_XMLTAG(leaf)) {
    case LLDP_MIB_lldpRemTimeMark:
        CONFD_SET_UINT32(&v, rec->time_mark);
        break;
    case LLDP_MIB_lldpRemLocalPortNum:
        CONFD_SET_INT32(&v, rec->local_port_num);
        break;
    case LLDP_MIB_lldpRemIndex:
        CONFD_SET_INT32(&v, rec->rem_index);
        break;
    case LLDP_MIB_lldpRemChassisIdSubtype:
        CONFD_SET_ENUM_VALUE(&v, rec->chassis_id_subtype);
        break;
    case LLDP_MIB_lldpRemChassisId:
        identifier_bytes(rec->chassis_id, id);
        CONFD_SET_BINARY(&v, id, 6);
        break;
    case LLDP_MIB_lldpRemPortIdSubtype:
        CONFD_SET_ENUM_VALUE(&v, rec->port_id_subtype);
        break;
    case LLDP_MIB_lldpRemPortId:
        identifier_bytes(rec->port_id, id);
        CONFD_SET_BINARY(&v, id, 6);
        break;
    case LLDP_MIB_lldpRemPortDesc:
        CONFD_SET_STR(&v, rec->text_a);
        break;
    case LLDP_MIB_lldpRemSysName:
        CONFD_SET_STR(&v, rec->text_b);
        break;
    case LLDP_MIB_lldpRemSysDesc:
        CONFD_SET_STR(&v, rec->text_c);
        break;
    case LLDP_MIB_lldpRemSysCapSupported:
        CONFD_SET_BIT32(&v, rec->caps_supported);
        break;
    case LLDP_MIB_lldpRemSysCapEnabled:
        CONFD_SET_BIT32(&v, rec->caps_enabled);
        break;
    default:
        CONFD_SET_NOEXISTS(&v);
        break;
    }
    confd_data_reply_value(tctx, &v);
    return CONFD_OK;
}

// get_next of lldpRemEntry: next -1 reloads the neighbours and starts at
// record 0; each row is answered with its three keys and the cookie of the
// following record.
int lldp_lldpRemEntry_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    const confd_value_t *list = &kp->v[0][0];
    if (list->type != C_XMLTAG || CONFD_GET_XMLTAG(list) != LLDP_MIB_lldpRemEntry) {
        confd_data_reply_next_key(tctx, nullptr, -1, -1);
        return CONFD_OK;
    }
    if (next == -1) {
        neighbour_cursor = 0;
        neighbour_count = 0;
        if (lldp_neighbours_load() != 0) {
            confd_data_reply_next_key(tctx, nullptr, -1, -1);
            return CONFD_OK;
        }
    }
    // Kept: "at most", so the walk ends with the record just past the last
    // line read (zero keys on a fresh daemon, or what an earlier, longer file
    // left there). With every record filled there is none past the last.
    if (neighbour_cursor > neighbour_count || neighbour_cursor >= max_neighbours) {
        confd_data_reply_next_key(tctx, nullptr, -1, -1);
        return CONFD_OK;
    }
    const LldpNeighbour *rec = &neighbours[neighbour_cursor];
    confd_value_t keys[3];
    CONFD_SET_UINT32(&keys[0], rec->time_mark);
    CONFD_SET_INT32(&keys[1], rec->local_port_num);
    CONFD_SET_INT32(&keys[2], rec->rem_index);
    neighbour_cursor++;
    confd_data_reply_next_key(tctx, keys, 3, neighbour_cursor);
    return CONFD_OK;
}

} // namespace

int lldp_neighbours_parse(FILE *in)
{
    char line[512];
    int k = 0;
    // Lines past the last record are ignored.
    while (k < max_neighbours && fgets(line, sizeof line, in) != nullptr) {
        LldpNeighbour *rec = &neighbours[k];
        rec->time_mark = static_cast<uint32_t>(k);
        rec->local_port_num = k;
        rec->rem_index = k;
        char *rest = line;
        char *field;
        // A field the line does not have leaves the record's old value.
        for (int index = 0; (field = strsep(&rest, "?\n")) != nullptr; index++)
            store_field(rec, index, field);
        k++;
    }
    return k;
}

int lldp_neighbours_load(void)
{
    sys_system(LLDP_NEIGHBOUR_SCRIPT);
    std::unique_ptr<FILE, file_closer> in(sys_fopen(LLDP_NEIGHBOUR_FILE, "r"));
    if (!in) return -1;
    neighbour_count = lldp_neighbours_parse(in.get());
    return 0;
}

int lldp_register(struct confd_daemon_ctx *dctx, int socket)
{
    lldp_socket = socket;
    // A fresh daemon starts with zero records (a repeated registration, as
    // in the unit tests, starts over the same way).
    memset(neighbours, 0, sizeof neighbours);
    neighbour_count = 0;
    neighbour_cursor = 0;
    struct confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", LLDP_MIB__callpointid_snmp_lldp_stats);
    cbs.get_elem = lldp_lldpRemEntry_get_elem;
    cbs.get_next = lldp_lldpRemEntry_get_next;
    if (confd_register_data_cb(dctx, &cbs) == CONFD_ERR)
        confd_fatal("Failed to register  transform lldpRemEntry  cb \n");
    return 0;
}
