// Copying a script field with "%%" printed as "%" and nothing else interpreted (see fieldcopy.h).
#include "fieldcopy.h"

size_t copy_field_as_format(char *dst, size_t size, const char *field)
{
    if (size == 0) return 0;
    size_t used = 0;
    for (const char *p = field != nullptr ? field : ""; *p != '\0' && used + 1 < size; p++) {
        if (p[0] == '%' && p[1] == '%') p++;
        dst[used++] = *p;
    }
    dst[used] = '\0';
    return used;
}
