// MAAPI operations the emulated library does not serve yet: each fails with CONFD_ERR_NOT_IMPLEMENTED.
#include "confd_maapi.h"
#include "lib_internal.h"

namespace {

int not_implemented() { return confd_lib_fail(CONFD_ERR_NOT_IMPLEMENTED, "not implemented"); }

} // namespace

extern "C" {

int maapi_start_user_session3(int, const char *, const char *, const char **, int,
                              const struct confd_ip *, int, enum confd_proto, const char *,
                              const char *, const char *, const char *)
{
    return not_implemented();
}

int maapi_end_user_session(int) { return not_implemented(); }

int maapi_start_trans_flags2(int, enum confd_dbname, enum confd_trans_mode, int, int, const char *,
                             const char *, const char *, const char *)
{
    return not_implemented();
}

int maapi_finish_trans(int, int) { return not_implemented(); }
int maapi_apply_trans(int, int, int) { return not_implemented(); }
int maapi_set_namespace(int, int, int) { return not_implemented(); }

int maapi_get_elem(int, int, confd_value_t *, const char *, ...) { return not_implemented(); }
int maapi_vget_elem(int, int, confd_value_t *, const char *, va_list) { return not_implemented(); }
int maapi_get_int32_elem(int, int, int32_t *, const char *, ...) { return not_implemented(); }
int maapi_get_u_int32_elem(int, int, uint32_t *, const char *, ...) { return not_implemented(); }
int maapi_get_buf_elem(int, int, unsigned char **, int *, const char *, ...)
{
    return not_implemented();
}
int maapi_get_str_elem(int, int, char *, int, const char *, ...) { return not_implemented(); }
int maapi_get_bool_elem(int, int, int *, const char *, ...) { return not_implemented(); }
int maapi_get_enum_value_elem(int, int, int32_t *, const char *, ...) { return not_implemented(); }
int maapi_get_identityref_elem(int, int, struct confd_identityref *, const char *, ...)
{
    return not_implemented();
}
int maapi_exists(int, int, const char *, ...) { return not_implemented(); }
int maapi_vexists(int, int, const char *, va_list) { return not_implemented(); }
int maapi_num_instances(int, int, const char *, ...) { return not_implemented(); }
int maapi_vnum_instances(int, int, const char *, va_list) { return not_implemented(); }

int maapi_init_cursor(int, int, struct maapi_cursor *, const char *, ...)
{
    return not_implemented();
}
int maapi_vinit_cursor(int, int, struct maapi_cursor *, const char *, va_list)
{
    return not_implemented();
}
int maapi_get_next(struct maapi_cursor *) { return not_implemented(); }
int maapi_find_next(struct maapi_cursor *, enum confd_find_next_type, confd_value_t *, int)
{
    return not_implemented();
}
void maapi_destroy_cursor(struct maapi_cursor *) { not_implemented(); }

int maapi_set_elem(int, int, confd_value_t *, const char *, ...) { return not_implemented(); }
int maapi_vset_elem(int, int, confd_value_t *, const char *, va_list) { return not_implemented(); }
int maapi_set_elem2(int, int, const char *, const char *, ...) { return not_implemented(); }
int maapi_vset_elem2(int, int, const char *, const char *, va_list) { return not_implemented(); }
int maapi_create(int, int, const char *, ...) { return not_implemented(); }
int maapi_vcreate(int, int, const char *, va_list) { return not_implemented(); }
int maapi_delete(int, int, const char *, ...) { return not_implemented(); }
int maapi_vdelete(int, int, const char *, va_list) { return not_implemented(); }

int maapi_xpath_eval_expr(int, int, const char *, char **res, void (*)(char *), const char *, ...)
{
    if (res != nullptr)
        *res = nullptr;
    return not_implemented();
}
int maapi_vxpath_eval_expr(int, int, const char *, char **res, void (*)(char *), const char *,
                           va_list)
{
    if (res != nullptr)
        *res = nullptr;
    return not_implemented();
}
int maapi_xpath_eval(int, int, const char *, int (*)(confd_hkeypath_t *, confd_value_t *, void *),
                     void (*)(char *), void *, const char *, ...)
{
    return not_implemented();
}
int maapi_vxpath_eval(int, int, const char *, int (*)(confd_hkeypath_t *, confd_value_t *, void *),
                      void (*)(char *), void *, const char *, va_list)
{
    return not_implemented();
}

int maapi_diff_iterate(int, int,
                       enum maapi_iter_ret (*)(confd_hkeypath_t *, enum maapi_iter_op,
                                               confd_value_t *, confd_value_t *, void *),
                       int, void *)
{
    return not_implemented();
}
int maapi_keypath_diff_iterate(int, int,
                               enum maapi_iter_ret (*)(confd_hkeypath_t *, enum maapi_iter_op,
                                                       confd_value_t *, confd_value_t *, void *),
                               int, void *, const char *, ...)
{
    return not_implemented();
}

} // extern "C"
