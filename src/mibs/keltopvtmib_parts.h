// What the files of the private model MIB provider share: the kept MAAPI socket, script and
// configuration readers, replies, and the callbacks the registration installs.
#ifndef LEISOBEK_MIBS_KELTOPVTMIB_PARTS_H
#define LEISOBEK_MIBS_KELTOPVTMIB_PARTS_H

#include "core/confd_api.h"

#include <cstddef>
#include <functional>
#include <string>

// The MAAPI socket start-up handed to keltopvt_register.
int keltopvt_maapi_socket();

// Longest output line the scripts are read in (fgets of 511 characters).
constexpr int keltopvt_line_max = 512;

// Runs command and hands each output line to line(fields, count), the line
// split at "," into at most max_fields fields (the newline stays in the last
// one); line returns false to stop reading. Returns false when the command
// could not be started.
bool keltopvt_read_script(const char *command, int max_fields,
                          const std::function<bool(char **fields, int count)> &line);

// The five fields of the last line that command ("getiface.sh lan" or "wan")
// printed, each copied as keltopvt_copy_text does ("" for a field no line had).
// False when the script could not be started.
struct keltopvt_iface_fields {
    char field[5][256];
};
bool keltopvt_read_iface(const char *command, keltopvt_iface_fields &out);

// Copies a script field into dst like the router (only "%%" interpreted, see
// core/fieldcopy.h) and cuts it at a line end, so the text served never ends
// in the script's newline.
void keltopvt_copy_text(char *dst, size_t size, const char *field);

// The string value of the XPath expression expr in transaction thandle (context
// node ctx, or null), read with the daemon's MAAPI XPath helper. False when it
// cannot be read.
bool keltopvt_config_value(int thandle, const char *expr, const char *ctx, std::string &out);

// Whether the leaf element of kp (kp->v[0][0]) is a tag.
bool keltopvt_leaf_is_tag(const confd_hkeypath_t *kp);

// Replies C_NOEXISTS; replies end of list (no keys, next -1). Both return CONFD_OK.
int keltopvt_reply_noexists(struct confd_trans_ctx *tctx);
int keltopvt_reply_end(struct confd_trans_ctx *tctx);

// Basic management (keltopvtmib_basic.cc).
int keltopvt_basicmgt_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
int keltopvt_basicmgmt_set_elem_hook(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                     confd_value_t *newval);

// Community, trap-manager and WAN DNS tables (keltopvtmib_tables.cc).
int keltopvt_commtbl_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next);
int keltopvt_commtbl_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
int keltopvt_trapmgr_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next);
int keltopvt_trapmgr_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);
int keltopvt_wandnstbl_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next);
int keltopvt_wandnstbl_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);

// WAN connection table (keltopvtmib_wan.cc).
int keltopvt_wancontbl_get_next(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp, long next);
int keltopvt_wancontbl_get_elem(struct confd_trans_ctx *tctx, confd_hkeypath_t *kp);

#endif
