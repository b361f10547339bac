/* The transfer service of file storage that comes with this library: it speaks to the daemon
 * spoolcap-transfer of this node, which carries files to and from the object store.
 *
 * A host calls qx_transfer_start once, beside qx_storage_initialize, and qx_transfer_stop before it
 * ends. /etc/quorvex/transfer.conf alone says where files go: storing needs neither the daemon nor
 * the store. Downloads fail at once while the daemon is away, and work again when it is back.
 *
 * The library starts one thread at the first use of the daemon. A child of fork has a connection of
 * its own; downloads that its parent started never end in the child. Call both functions from any
 * thread, but not from a signal handler. */
#ifndef SPOOLCAP_TRANSFER_H
#define SPOOLCAP_TRANSFER_H

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* Reads the configuration, also when called again, and installs the service in place of another
 * one. 0; -1 with nothing changed, after logging what is wrong. */
int qx_transfer_start(void);

/* Removes the service: the object store is not usable from then on. All running downloads fail
 * before the call returns. No effect when the service was not started. */
void qx_transfer_stop(void);

SPOOLCAP_END_DECLARATIONS

#endif
