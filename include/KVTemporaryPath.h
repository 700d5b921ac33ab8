/* KVTemporaryPath.h: where the library keeps its files.
 *
 * Every content that the library handles (a file read out of a zip, an imported file,
 * the working copy of a manifest database) lies as a file below one directory that the
 * host chooses before it does anything else. The library creates what it needs below
 * it, directories with mode 0700 and files with mode 0600 whatever the umask, and
 * deletes nothing of it: the host removes the directory when it is done.
 */
#ifndef KVTEMPORARYPATH_H
#define KVTEMPORARYPATH_H

#include "KVBase.h"

/* Sets the directory, once per process.
 * path: an absolute path; it and its missing parents are created, with mode 0700. A
 *   directory that is there already keeps its mode.
 * Returns true when the path is now set, or was set to the same text before. False when
 *   path is null or empty, when another path is set already (it stays), or when the
 *   directory cannot be created (nothing is set then, and a later call may succeed).
 * Any thread. */
KV_EXPORT Boolean KelvaneSetTemporaryPath(CFStringRef path);

/* The path as it was set, as a new mutable string that the caller releases; null when
 * none is set. Any thread. */
KV_EXPORT CFMutableStringRef KelvaneCopyTemporaryPath(void);

#endif
