// UCD-SNMP-MIB provider: memory, systemStats, version and prTable from the UCD collector.
#include "ucdmibimpl.h"

#include "core/leisobek.h"
#include "timedcache.h"
#include "ucdstats.h"

#include "UCD-SNMP-MIB.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{

// The memory group is reread on every 19th request, the version group on
// every 11th (the first request of each rereads too).
const uint32_t memory_period = 19;
const uint32_t version_period = 11;

ucd_memory memory;
ucd_version version;

// The processes of the start-up snapshot in prTable order: ascending pid, and
// of two lines with one pid the later first. Filled once at registration.
std::vector<ucd_process> processes;

// Kept like every provider's copy; no UCD request needs MAAPI.
int ucd_maapi_sock = -1;

char system_stats_name[] = "systemStats";

int reply_uint32(struct confd_trans_ctx *tctx, uint32_t value)
{
    confd_value_t v;
    CONFD_SET_UINT32(&v, value);
    confd_data_reply_value(tctx, &v);
    return CONFD_OK;
}

int reply_str(struct confd_trans_ctx *tctx, char *text)
{
    confd_value_t v;
    CONFD_SET_STR(&v, text);
    confd_data_reply_value(tctx, &v);
    return CONFD_OK;
}

// A leaf this provider does not serve: a value of type C_NOEXISTS, which
// ConfD takes as "no such instance".
int reply_noexists(struct confd_trans_ctx *tctx)
{
    confd_value_t v;
    CONFD_SET_NOEXISTS(&v);
    confd_data_reply_value(tctx, &v);
    return CONFD_OK;
}

// get_next of the three scalar groups: there is no list below them.
int ucd_scalars_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    (void)kp;
    (void)next;
    confd_data_reply_next_key(tctx, nullptr, -1, -1);
    return CONFD_OK;
}

int ucd_memory_stats_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    uint32_t leaf = CONFD_GET_XMLTAG(&(kp->v[0][0]));
    if (request_count_due(&memory.requests, memory_period)) ucd_read_meminfo(&memory);
    TRACE_EXIT();
    switch (leaf) {
    case UCD_SNMP_MIB_memIndex:
        return reply_uint32(tctx, memory.index);
    case UCD_SNMP_MIB_memErrorName:
        return reply_str(tctx, memory.error_name);
    case UCD_SNMP_MIB_memTotalSwap:
        return reply_uint32(tctx, memory.total_swap);
    case UCD_SNMP_MIB_memAvailSwap:
        return reply_uint32(tctx, memory.avail_swap);
    case UCD_SNMP_MIB_memTotalReal:
        return reply_uint32(tctx, memory.total_real);
    case UCD_SNMP_MIB_memAvailReal:
        return reply_uint32(tctx, memory.avail_real);
    case UCD_SNMP_MIB_memTotalFree:
        return reply_uint32(tctx, memory.total_free);
    case UCD_SNMP_MIB_memShared:
        return reply_uint32(tctx, memory.shared);
    case UCD_SNMP_MIB_memBuffer:
        return reply_uint32(tctx, memory.buffer);
    case UCD_SNMP_MIB_memCached:
        return reply_uint32(tctx, memory.cached);
    default:
        return reply_noexists(tctx);
    }
}

// systemStats: raw CPU ticks (per CPU), swap pages, context switches. The
// other counters are collected but deliberately not served, nor are the
// percentage objects.
int ucd_sys_stats_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    ucd_sys_stats s;
    ucd_collect_sys_stats(&s);
    uint32_t leaf = CONFD_GET_XMLTAG(&(kp->v[0][0]));
    TRACE_EXIT();
    switch (leaf) {
    case UCD_SNMP_MIB_ssIndex:
        return reply_uint32(tctx, 1);
    case UCD_SNMP_MIB_ssErrorName:
        return reply_str(tctx, system_stats_name);
    case UCD_SNMP_MIB_ssCpuRawUser:
        return reply_uint32(tctx, s.user);
    case UCD_SNMP_MIB_ssCpuRawSystem:
        return reply_uint32(tctx, s.system);
    case UCD_SNMP_MIB_ssCpuRawIdle:
        return reply_uint32(tctx, s.idle);
    case UCD_SNMP_MIB_ssCpuRawInterrupt:
        return reply_uint32(tctx, s.irq);
    case UCD_SNMP_MIB_ssRawSwapIn:
        return reply_uint32(tctx, s.swap_in);
    case UCD_SNMP_MIB_ssRawSwapOut:
        return reply_uint32(tctx, s.swap_out);
    case UCD_SNMP_MIB_ssRawContexts:
        return reply_uint32(tctx, s.contexts);
    default:
        return reply_noexists(tctx);
    }
}

int ucd_version_info_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    TRACE_ENTER();
    uint32_t leaf = CONFD_GET_XMLTAG(&(kp->v[0][0]));
    if (request_count_due(&version.requests, version_period)) ucd_read_version(&version);
    TRACE_EXIT();
    switch (leaf) {
    case UCD_SNMP_MIB_versionTag:
        return reply_str(tctx, version.release);
    case UCD_SNMP_MIB_versionDate:
        return reply_str(tctx, version.build);
    case UCD_SNMP_MIB_versionCDate:
        return reply_str(tctx, version.date);
    default:
        return reply_noexists(tctx);
    }
}

// The first process with the pid of the entry's key, or null. A key that is
// not an int32 aborts the daemon.
ucd_process *find_process_entry(confd_hkeypath_t *keypath)
{
    int32_t pid = CONFD_GET_INT32(&keypath->v[1][0]);
    auto at = std::lower_bound(processes.begin(), processes.end(), pid,
                               [](const ucd_process &p, int32_t key) { return p.pid < key; });
    return at != processes.end() && at->pid == pid ? &*at : nullptr;
}

int ucd_process_info_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp)
{
    ucd_process *p = find_process_entry(kp);
    if (p == nullptr) {
        confd_data_reply_not_found(tctx);
        return CONFD_OK;
    }
    switch (CONFD_GET_XMLTAG(&(kp->v[0][0]))) {
    case UCD_SNMP_MIB_prIndex: {
        confd_value_t v;
        CONFD_SET_INT32(&v, p->pid);
        confd_data_reply_value(tctx, &v);
        return CONFD_OK;
    }
    case UCD_SNMP_MIB_prNames:
        return reply_str(tctx, p->name.data());
    case UCD_SNMP_MIB_prMin:
        return reply_uint32(tctx, p->counters[0]);
    case UCD_SNMP_MIB_prMax:
        return reply_uint32(tctx, p->counters[1]);
    case UCD_SNMP_MIB_prCount:
        return reply_uint32(tctx, p->counters[2]);
    default:
        return reply_noexists(tctx);
    }
}

// get_next of prTable: next -1 starts at the first process, any other next
// is the position answered last plus one. Any keypath but the prEntry list
// ends the walk at once.
int ucd_process_info_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next)
{
    const confd_value_t *list = &kp->v[0][0];
    long position = next == -1 ? 0 : next;
    if (list->type == C_XMLTAG && CONFD_GET_XMLTAG(list) == UCD_SNMP_MIB_prEntry && position >= 0 &&
        static_cast<unsigned long>(position) < processes.size()) {
        confd_value_t key;
        CONFD_SET_INT32(&key, processes[static_cast<size_t>(position)].pid);
        confd_data_reply_next_key(tctx, &key, 1, position + 1);
        return CONFD_OK;
    }
    confd_data_reply_next_key(tctx, nullptr, -1, -1);
    return CONFD_OK;
}

void register_transform(struct confd_daemon_ctx *dctx, struct confd_data_cbs *cbs,
                        const char *callpoint, const char *failure)
{
    snprintf(cbs->callpoint, sizeof cbs->callpoint, "%s", callpoint);
    if (confd_register_data_cb(dctx, cbs) == CONFD_ERR) confd_fatal("%s", failure);
}

} // namespace

int register_ucd(struct confd_daemon_ctx *dctx, int msock)
{
    ucd_maapi_sock = msock;
    // Registered once in the daemon; a repeated registration (the unit
    // tests') starts from nothing again.
    memset(&memory, 0, sizeof memory);
    memset(&version, 0, sizeof version);
    ucd_sys_stats_reset();
    processes.clear();

    struct confd_data_cbs cbs;
    memset(&cbs, 0, sizeof cbs);
    cbs.get_next = ucd_scalars_get_next;
    cbs.get_elem = ucd_memory_stats_get_elem;
    register_transform(dctx, &cbs, UCD_SNMP_MIB__callpointid_memory_stats,
                       "Failed to register ucd_status transform memory  cb \n");
    cbs.get_elem = ucd_sys_stats_get_elem;
    register_transform(dctx, &cbs, UCD_SNMP_MIB__callpointid_sys_stats,
                       "Failed to register ucd_status transform sysstats  cb \n");
    cbs.get_elem = ucd_version_info_get_elem;
    register_transform(dctx, &cbs, UCD_SNMP_MIB__callpointid_version_info,
                       "Failed to register ucd_status transform version cb \n");
    cbs.get_elem = ucd_process_info_get_elem;
    cbs.get_next = ucd_process_info_get_next;
    cbs.set_elem = ignore_set_elem;
    cbs.create = ignore_create;
    cbs.remove = ignore_remove;
    register_transform(dctx, &cbs, UCD_SNMP_MIB__callpointid_process_info,
                       "Failed to register ucd_status transform process info cb \n");

    // The snapshot is taken once: prTable shows the processes of start-up
    // for the whole run. Reversing before the stable sort puts the later of
    // two lines with one pid first.
    std::vector<ucd_process> read;
    if (ucd_collect_processes(read) != 0) return -1;
    std::reverse(read.begin(), read.end());
    std::stable_sort(read.begin(), read.end(),
                     [](const ucd_process &a, const ucd_process &b) { return a.pid < b.pid; });
    processes = std::move(read);
    return 0;
}
