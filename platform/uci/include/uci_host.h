/* Host-only additions of the in-tree UCI library: limits and a test seam for the default directory. */
#ifndef LEISOBEK_PLATFORM_UCI_HOST_H
#define LEISOBEK_PLATFORM_UCI_HOST_H

#ifdef __cplusplus
extern "C" {
#endif

/* The largest package file uci_load accepts; a larger one fails with UCI_ERR_PARSE. */
#define LEISOBEK_UCI_MAX_FILE_BYTES (1024 * 1024)

/* The longest line (without its line break) uci_load accepts; longer fails with UCI_ERR_PARSE. */
#define LEISOBEK_UCI_MAX_LINE_BYTES (16 * 1024)

/*
 * Sets the directory that contexts allocated from now on start with, so
 * that tests can run code which allocates its own context (and so cannot
 * call uci_set_confdir) against fixture files. NULL restores "/etc/config".
 * Contexts that already exist keep their directory. Returns 0, or -1 when
 * `dir` is empty or the copy cannot be made. Not part of libuci: the daemon
 * never calls it.
 */
int leisobek_uci_set_default_confdir(const char *dir);

#ifdef __cplusplus
}
#endif

#endif /* LEISOBEK_PLATFORM_UCI_HOST_H */
