// Copying a system script's output field into a fixed buffer, as the router's code prints it.
//
// The router copies each field by printing it with the field itself as the
// printf format and no arguments. For every well-formed script that means the
// field as it stands with "%%" printed as "%"; a field holding any other "%"
// sequence ("%s", "%n") would read arguments that were never passed. This copy
// gives the same text for the well-formed case and copies every other "%"
// sequence as it stands, so no script output is ever taken for a format.
#ifndef LEISOBEK_CORE_FIELDCOPY_H
#define LEISOBEK_CORE_FIELDCOPY_H

#include <cstddef>

// Copies field into dst (size bytes, size > 0): "%%" becomes "%", every other
// character, "%" included, is copied as it is. At most size - 1 characters are
// stored and dst is always terminated. A null field gives "". Returns the number
// of characters stored.
size_t copy_field_as_format(char *dst, size_t size, const char *field);

#endif
