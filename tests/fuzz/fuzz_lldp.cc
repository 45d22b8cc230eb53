// Fuzzes the reader of the LLDP neighbour file on any text, twice in a row as walks re-read it
// into the same records.
#include "fuzz_util.h"

#include "mibs/lldpmib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    for (int pass = 0; pass < 2; pass++) {
        int lines = lldp_neighbours_parse(fuzz::stream(data, size).get());
        if (lines < 0 || lines > 10) __builtin_trap(); // never more lines than records
    }
    return 0;
}
