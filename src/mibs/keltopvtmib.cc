// Private model MIB: registration of its seven callpoints, the common group (device facts from
// "keltopvtmib_common.sh") and the advanced-management group (SNMP versions and UPnP).
#include "keltopvtmib.h"
#include "keltopvtmib_parts.h"

#include "ZAMREL-MODEL-MIB.h"
#include "core/fieldcopy.h"
#include "core/leisobek.h"
#include "core/sysenv.h"

#include <cstdlib>
#include <cstring>

namespace
{

int kept_maapi_sock = -1;

// The common group's cache: four texts and the device state from the last
// line of the script, and the reads since the script last ran.
char common_text[4][256];
int32_t common_state;
int32_t common_calls;

// The script runs once in every this many reads of the group, so one walk of
// its five leaves costs one run.
const int32_t common_reads_per_run = 5;

void refresh_common()
{
    // Every line overwrites the previous one; a field a line lacks keeps its value.
    keltopvt_read_script("sh /usr/bin/keltopvtmib_common.sh", 5, [](char **fields, int count) {
        for (int i = 0; i < 4 && i < count; i++)
            keltopvt_copy_text(common_text[i], sizeof common_text[i], fields[i]);
        if (count > 4) common_state = atoi(fields[4]);
        return true;
    });
}

int keltopvt_common_stats_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    if (common_calls++ < 1) refresh_common();
    uint32_t leaf = CONFD_GET_XMLTAG(&(kp->v[0][0]));
    confd_value_t v;
    switch (leaf) {
    case ZAMREL_MODEL_MIB_commonProductName:
        CONFD_SET_STR(&v, common_text[0]);
        break;
    case ZAMREL_MODEL_MIB_commonFirmwareVersion:
        CONFD_SET_STR(&v, common_text[1]);
        break;
    case ZAMREL_MODEL_MIB_commonHardwareVersion:
        CONFD_SET_STR(&v, common_text[2]);
        break;
    case ZAMREL_MODEL_MIB_commonSerialNumber:
        CONFD_SET_STR(&v, common_text[3]);
        break;
    case ZAMREL_MODEL_MIB_commonDeviceState:
        CONFD_SET_ENUM_VALUE(&v, common_state);
        break;
    default:
        v.type = C_NOEXISTS;
        break;
    }
    confd_data_reply_value(tctx, &v);
    if (common_calls == common_reads_per_run) common_calls = 0;
    TRACE_EXIT();
    return CONFD_OK;
}

// Whether the configuration value at path reads "true"; one that cannot be
// read counts as not true.
bool config_true(int thandle, const char *path)
{
    std::string value;
    return keltopvt_config_value(thandle, path, nullptr, value) && value == "true";
}

int keltopvt_advancemgt_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    if (!keltopvt_leaf_is_tag(kp)) return keltopvt_reply_noexists(tctx);
    int th = tctx->thandle;
    confd_value_t v;
    switch (CONFD_GET_XMLTAG(&kp->v[0][0])) {
    case ZAMREL_MODEL_MIB_snmpV1V2cStatus:
        CONFD_SET_ENUM_VALUE(&v, config_true(th, "/confdConfig/snmpAgent/snmpVersions/v1") ||
                                         config_true(th, "/confdConfig/snmpAgent/snmpVersions/v2")
                                     ? 1
                                     : 0);
        break;
    case ZAMREL_MODEL_MIB_snmpV3Status:
        CONFD_SET_ENUM_VALUE(&v, config_true(th, "/confdConfig/snmpAgent/snmpVersions/v3") ? 1 : 0);
        break;
    case ZAMREL_MODEL_MIB_upnpStatus:
        // Kept inverted against the version switches: 0 is on, as the model numbers it.
        CONFD_SET_ENUM_VALUE(&v, config_true(th, "/firewall/upnp") ? 0 : 1);
        break;
    default:
        v.type = C_NOEXISTS;
        break;
    }
    confd_data_reply_value(tctx, &v);
    TRACE_EXIT();
    return CONFD_OK;
}

// The scalar groups have no lists: every walk below them ends at once.
int keltopvt_no_rows(struct confd_trans_ctx *tctx, confd_hkeypath_t *, long)
{
    return keltopvt_reply_end(tctx);
}

// Writes to groups and tables without writable leaves are accepted and dropped.
int keltopvt_ignore_write(struct confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *)
{
    return CONFD_OK;
}

struct registration {
    const char *callpoint;
    int (*get_elem)(struct confd_trans_ctx *, confd_hkeypath_t *);
    int (*get_next)(struct confd_trans_ctx *, confd_hkeypath_t *, long);
    int (*set_elem)(struct confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *);
    const char *failure;
};

// In registration order. The WAN DNS table's failure text repeats the trap
// manager's, as the router prints it.
const registration registrations[] = {
    {ZAMREL_MODEL_MIB__callpointid_zamrel_model_mib_common, keltopvt_common_stats_get_elem,
     keltopvt_no_rows, nullptr, "Failed to register keltopvt_status transform common  cb \n"},
    {ZAMREL_MODEL_MIB__callpointid_zamrel_model_mib_basicmgt, keltopvt_basicmgt_get_elem,
     keltopvt_no_rows, keltopvt_basicmgmt_set_elem_hook,
     "Failed to register keltopvt_status transform Basic Management cb \n"},
    {ZAMREL_MODEL_MIB__callpointid_zamrel_model_mib_advancemgt, keltopvt_advancemgt_get_elem,
     keltopvt_no_rows, keltopvt_ignore_write,
     "Failed to register keltopvt_status transform Advance Management cb \n"},
    {ZAMREL_MODEL_MIB__callpointid_zamrel_model_mib_mgtcommunitytable, keltopvt_commtbl_get_elem,
     keltopvt_commtbl_get_next, nullptr,
     "Failed to register keltopvt_status transform Community Table  cb \n"},
    {ZAMREL_MODEL_MIB__callpointid_zamrel_model_mib_trapmgrtable, keltopvt_trapmgr_get_elem,
     keltopvt_trapmgr_get_next, nullptr,
     "Failed to register keltopvt_status transform Trap Manager  cb \n"},
    {ZAMREL_MODEL_MIB__callpointid_zamrel_model_mib_wandnsnetaddresstable,
     keltopvt_wandnstbl_get_elem, keltopvt_wandnstbl_get_next, keltopvt_ignore_write,
     "Failed to register keltopvt_status transform Trap Manager  cb \n"},
    {ZAMREL_MODEL_MIB__callpointid_zamrel_model_mib_wanconnectiontable, keltopvt_wancontbl_get_elem,
     keltopvt_wancontbl_get_next, nullptr,
     "Failed to register keltopvt_status transform WAN Connection Table  cb \n"},
};

} // namespace

int keltopvt_maapi_socket()
{
    return kept_maapi_sock;
}

bool keltopvt_read_script(const char *command, int max_fields,
                          const std::function<bool(char **fields, int count)> &line)
{
    sys_pipe out(command);
    if (!out) return false;
    char buf[keltopvt_line_max];
    char *fields[8];
    if (max_fields > 8) max_fields = 8;
    while (fgets(buf, sizeof buf, out.get()) != nullptr) {
        char *rest = buf;
        int count = 0;
        while (count < max_fields && rest != nullptr)
            fields[count++] = strsep(&rest, ",");
        if (!line(fields, count)) break;
    }
    return true;
}

bool keltopvt_read_iface(const char *command, keltopvt_iface_fields &out)
{
    memset(&out, 0, sizeof out);
    // The last line wins.
    return keltopvt_read_script(command, 5, [&out](char **fields, int count) {
        for (int i = 0; i < count; i++)
            keltopvt_copy_text(out.field[i], sizeof out.field[i], fields[i]);
        return true;
    });
}

void keltopvt_copy_text(char *dst, size_t size, const char *field)
{
    copy_field_as_format(dst, size, field);
    dst[strcspn(dst, "\r\n")] = '\0';
}

bool keltopvt_config_value(int thandle, const char *expr, const char *ctx, std::string &out)
{
    char *result = nullptr;
    int rc = xpath_eval(thandle, expr, ctx, &result);
    bool ok = rc == CONFD_OK && result != nullptr;
    if (ok) out = result;
    free(result);
    return ok;
}

bool keltopvt_leaf_is_tag(const confd_hkeypath_t *kp)
{
    return kp->len > 0 && kp->v[0][0].type == C_XMLTAG;
}

int keltopvt_reply_noexists(struct confd_trans_ctx *tctx)
{
    confd_value_t v;
    v.type = C_NOEXISTS;
    confd_data_reply_value(tctx, &v);
    return CONFD_OK;
}

int keltopvt_reply_end(struct confd_trans_ctx *tctx)
{
    confd_data_reply_next_key(tctx, nullptr, 0, -1);
    return CONFD_OK;
}

int keltopvt_register(struct confd_daemon_ctx *dctx, int msock)
{
    kept_maapi_sock = msock;
    for (const registration &r : registrations) {
        struct confd_data_cbs cbs;
        memset(&cbs, 0, sizeof cbs);
        snprintf(cbs.callpoint, sizeof cbs.callpoint, "%s", r.callpoint);
        cbs.get_elem = r.get_elem;
        cbs.get_next = r.get_next;
        cbs.set_elem = r.set_elem;
        if (confd_register_data_cb(dctx, &cbs) == CONFD_ERR) confd_fatal("%s", r.failure);
    }
    return 0;
}
