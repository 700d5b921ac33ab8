/* Kelvane.h: everything.
 *
 * Opens, reads and edits backups of iOS devices. Start with KVBase.h for the rules of
 * the interface, set a directory for temporary files (KVTemporaryPath.h), then open a
 * backup (KVBackupContainer.h).
 */
#ifndef KELVANE_H
#define KELVANE_H

#define KELVANE_VERSION_MAJOR 1
#define KELVANE_VERSION_MINOR 0
#define KELVANE_VERSION_PATCH 0
#define KELVANE_VERSION_STRING "1.0.0"

#include "KVBackupContainer.h"
#include "KVBackupWriting.h"
#include "KVBase.h"
#include "KVError.h"
#include "KVFile.h"
#include "KVLog.h"
#include "KVManifest.h"
#include "KVManifestEntry.h"
#include "KVTemporaryPath.h"
#include "fastpbkdf2.h"

#endif
