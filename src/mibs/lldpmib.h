// LLDP-MIB provider: the "snmp_lldp_stats" transform (lldpRemTable) from the LLDP neighbour file.
#ifndef LEISOBEK_MIBS_LLDPMIB_H
#define LEISOBEK_MIBS_LLDPMIB_H

#include "core/confd_api.h"

#include <cstdio>

// The script that writes the neighbour file, and the file.
constexpr const char LLDP_NEIGHBOUR_SCRIPT[] = "/usr/bin/snmp_lldp_neighinfo.sh > /dev/null 2>&1";
constexpr const char LLDP_NEIGHBOUR_FILE[] = "/tmp/stats/snmp_lldpneighstats";

// Keeps socket (nothing reads it) and registers the get_elem and get_next
// callbacks of "snmp_lldp_stats" on dctx. Returns 0; a refused registration
// ends the process through confd_fatal.
int lldp_register(struct confd_daemon_ctx *dctx, int socket);

// Runs the neighbour script and reads the neighbour file into the records.
// Returns 0, or -1 (records untouched) when the file cannot be opened.
int lldp_neighbours_load(void);

// Reads neighbour lines from in into the records, one record per line from
// record 0 on, at most as many lines as there are records; returns the number
// of lines read.
int lldp_neighbours_parse(FILE *in);

#endif
