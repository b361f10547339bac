/* The transfer service of file storage that comes with this library: it speaks to the daemon
 * spoolcap-transfer of this node, which carries files to and from the object store.
 *
 * A host calls qx_transfer_start once, beside qx_storage_initialize, and qx_transfer_stop before it
 * ends. Where files go is told by /etc/quorvex/transfer.conf alone: a daemon that is stopped, or a
 * store in trouble, never keeps a file from being stored. Only downloads need the daemon: while it
 * is away they fail at once, and work again when it is back.
 *
 * The library has one thread of its own for this, from the first use of the daemon on. A child of
 * fork goes on with a connection of its own; downloads that its parent started are the parent's,
 * and never end in the child. Both functions may be called from any thread, but not from a signal
 * handler. */
#ifndef SPOOLCAP_TRANSFER_H
#define SPOOLCAP_TRANSFER_H

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* Reads the configuration and installs the service, in place of one that was registered with
 * qx_storage_register_api. Called again, it reads the configuration again. 0, or -1 after logging
 * what is wrong, with all as it was. */
int qx_transfer_start(void);

/* Removes the service: the object store is not usable from then on. Every download that runs ends
 * as failed before the call returns. Nothing happens when the service was not started. */
void qx_transfer_stop(void);

SPOOLCAP_END_DECLARATIONS

#endif
