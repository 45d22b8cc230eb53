/* Compiles uci.h as C11 and walks a package with its macros, so the API stays usable from C. */
#include <uci.h>

/* Counts the package's sections, options and list items. */
void uci_c_walk(struct uci_package *p, int *sections, int *options, int *items)
{
    struct uci_element *se, *oe, *ie;

    *sections = *options = *items = 0;
    uci_foreach_element(&p->sections, se)
    {
        struct uci_section *s = uci_to_section(se);
        ++*sections;
        uci_foreach_element(&s->options, oe)
        {
            struct uci_option *o = uci_to_option(oe);
            ++*options;
            if (o->type == UCI_TYPE_LIST) {
                uci_foreach_element(&o->v.list, ie)
                {
                    ++*items;
                }
            }
        }
    }
}
